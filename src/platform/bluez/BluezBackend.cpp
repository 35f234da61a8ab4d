#include "platform/bluez/BluezBackend.h"

#include "platform/bluez/BluezCentral.h"

namespace qlt::bluez {

namespace {

class BluezBackend final : public platform::Backend {
 public:
  explicit BluezBackend(const BluezOptions& options) : options_(options) {}
  std::string name() const override { return "bluez"; }
  std::shared_ptr<platform::Central> createCentral(
      const std::shared_ptr<platform::CentralDelegate>& delegate,
      const std::shared_ptr<DispatchQueue>& queue, const platform::CentralOptions&) override {
    return BluezCentral::create(delegate, queue, options_);
  }

 private:
  const BluezOptions options_;
};

}  // namespace

std::shared_ptr<platform::Backend> makeBackend() { return makeBackend(BluezOptions{}); }

std::shared_ptr<platform::Backend> makeBackend(const BluezOptions& options) {
  return std::make_shared<BluezBackend>(options);
}

}  // namespace qlt::bluez
