#include "QueltLibrary/QLT_Object.h"

#include "QueltLibrary/Log.h"

namespace qlt {

QLT_Object::QLT_Object(std::string className, std::shared_ptr<DispatchQueue> queue)
    : moduleName_(std::move(className)),
      moduleQueue_(std::move(queue)),
      multicastDelegate_(std::make_shared<GCDMulticastDelegate>()) {
  if (moduleQueue_)
    moduleQueue_->setSpecific(&moduleQueueTag_, const_cast<char*>(&moduleQueueTag_));
}

const std::shared_ptr<DispatchQueue>& QLT_Object::moduleQueue() const {
  std::call_once(moduleQueueMade_, [this] {
    if (moduleQueue_) return;
    moduleQueue_ = DispatchQueue::create(moduleName_);
    moduleQueue_->setSpecific(&moduleQueueTag_, const_cast<char*>(&moduleQueueTag_));
  });
  return moduleQueue_;
}

QLT_Object::~QLT_Object() = default;

bool QLT_Object::isOnModuleQueue() const {
  return DispatchQueue::getSpecific(&moduleQueueTag_) != nullptr;
}

void QLT_Object::runOnModuleQueue(DispatchQueue::Task task, bool synchronously) {
  if (isOnModuleQueue()) {
    task();
  } else if (synchronously) {
    moduleQueue()->sync(task);
  } else {
    moduleQueue()->async(std::move(task));
  }
}

void QLT_Object::addDelegate(const std::shared_ptr<Delegate>& delegate) {
  addDelegate(delegate, DispatchQueue::main());
}

void QLT_Object::addDelegate(const std::shared_ptr<Delegate>& delegate,
                             const std::shared_ptr<DispatchQueue>& delegateQueue) {
  auto self = shared_from_this();
  runOnModuleQueue(
      [self, delegate, delegateQueue] {
        self->removeDuplicateDelegate(delegate);
        self->multicastDelegate_->addDelegate(delegate, delegateQueue);
        self->deviceObject_delegate_attached(self.get(), delegate, true);
      },
      /*synchronously=*/false);
}

void QLT_Object::removeDelegate(const std::shared_ptr<Delegate>& delegate,
                                const std::shared_ptr<DispatchQueue>& delegateQueue,
                                bool synchronously) {
  auto self = shared_from_this();
  runOnModuleQueue(
      [self, delegate, delegateQueue] {
        self->multicastDelegate_->removeDelegate(delegate.get(), delegateQueue.get());
        self->deviceObject_delegate_attached(self.get(), delegate, false);
      },
      synchronously);
}

void QLT_Object::removeDuplicateDelegate(const std::shared_ptr<Delegate>& delegate) {
  if (!delegate) return;
  auto e = multicastDelegate_->delegateEnumerator();
  std::shared_ptr<Delegate> d;
  while (e.getNextDelegate(&d, nullptr)) {
    if (d == delegate) {
      QLTLog("Already in the queue");
      removeDelegate(delegate);
      return;
    }
  }
}

}  // namespace qlt
