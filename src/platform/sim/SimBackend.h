// SimBackend: the "sim" platform backend; its centrals live on one SimRadio.
//
// Threads: createCentral may be called from any thread.
#pragma once

#include <memory>

#include "QueltLibrary/platform/Platform.h"
#include "SimRadioImpl.h"

namespace qlt::sim {

class SimBackend final : public platform::Backend {
 public:
  explicit SimBackend(std::shared_ptr<SimRadio::Impl> radio) : radio_(std::move(radio)) {}
  std::string name() const override { return "sim"; }
  std::shared_ptr<platform::Central> createCentral(
      const std::shared_ptr<platform::CentralDelegate>& delegate,
      const std::shared_ptr<DispatchQueue>& queue,
      const platform::CentralOptions& options) override;

 private:
  const std::shared_ptr<SimRadio::Impl> radio_;
};

}  // namespace qlt::sim
