// LoopPort: the BusPort of a running BusLoop, calling bluetoothd (org.bluez) through the
// loop's proxies.
//
// Thread safety: as BusPort; the loop must outlive every handle this port hands out.
#pragma once

#include "platform/bluez/BusLoop.h"
#include "platform/bluez/BusPort.h"

namespace qlt::bluez {

class LoopPort final : public BusPort {
 public:
  LoopPort(BusLoop& loop, std::chrono::milliseconds callTimeout)
      : loop_(loop), callTimeout_(callTimeout) {}
  bool isBusThread() const override { return loop_.isLoopThread(); }
  void post(Task task) override { loop_.post(std::move(task)); }
  void call(const std::string& path, const char* interface, const char* method,
            const Arguments& arguments, std::chrono::milliseconds timeout, Reply done,
            ScopedHandle* keep = nullptr) override;
  void askBus(const char* method, const std::string& argument, Reply done) override;
  void releaseProxy(const std::string& path) override;
  void releaseAllProxies() override { loop_.releaseAllProxies(); }
  ScopedHandle runAfter(std::chrono::milliseconds delay, Task task) override;
  ScopedHandle watch(int fd, short events, std::function<void(short revents)> callback) override;
  ScopedHandle match(const std::string& rule,
                     std::function<void(sdbus::Message&)> handler) override;

 private:
  BusLoop& loop_;
  const std::chrono::milliseconds callTimeout_;  // of askBus
};

}  // namespace qlt::bluez
