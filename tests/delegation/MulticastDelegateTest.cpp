#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "QueltLibrary/GCDMulticastDelegate.h"
#include "QueltLibrary/QLT_Object.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

// Two callbacks of a made-up sender, and a delegate that records what reaches it.
class Pinged : public virtual Delegate {
 public:
  virtual void sender_pinged(int n) = 0;
};
class Described : public virtual Delegate {
 public:
  virtual void sender_described(int32_t i, double d, float f, bool b,
                                std::shared_ptr<std::string> object) = 0;
};

struct Journal {
  std::mutex mutex;
  std::vector<std::string> entries;
  void add(std::string e) {
    std::lock_guard lock(mutex);
    entries.push_back(std::move(e));
  }
  std::vector<std::string> get() {
    std::lock_guard lock(mutex);
    return entries;
  }
};

class Recorder : public Pinged {
 public:
  Recorder(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}
  void sender_pinged(int n) override { journal_.add(name_ + std::to_string(n)); }

 private:
  std::string name_;
  Journal& journal_;
};

class Silent : public Delegate {};

// Waits until every task queued so far on `q` has run.
void flush(const std::shared_ptr<DispatchQueue>& q) {
  q->sync([] {});
}

}  // namespace

TEST(AMulticastDelegate, DropsACallbackNobodyImplements) {
  GCDMulticastDelegate md;
  md.invoke(&Pinged::sender_pinged, 1);  // empty list
  auto silent = std::make_shared<Silent>();
  md.addDelegate(silent, DispatchQueue::create("q"));
  md.invoke(&Pinged::sender_pinged, 2);
  EXPECT_EQ(md.countForSelector<Pinged>(), 0u);
  EXPECT_FALSE(md.hasDelegateThatRespondsToSelector<Pinged>());
  EXPECT_EQ(md.count(), 1u);
}

TEST(AMulticastDelegate, DeliversInNodeOrderOnASharedQueue) {
  GCDMulticastDelegate md;
  Journal journal;
  auto q = DispatchQueue::create("shared");
  auto a = std::make_shared<Recorder>("A", journal);
  auto b = std::make_shared<Recorder>("B", journal);
  md.addDelegate(a, q);
  md.addDelegate(b, q);
  md.invoke(&Pinged::sender_pinged, 1);
  md.invoke(&Pinged::sender_pinged, 2);
  flush(q);
  EXPECT_EQ(journal.get(), (std::vector<std::string>{"A1", "B1", "A2", "B2"}));
}

TEST(AMulticastDelegate, CallsADelegateAddedTwiceTwiceAndRemovesAllItsNodes) {
  GCDMulticastDelegate md;
  Journal journal;
  auto q1 = DispatchQueue::create("q1");
  auto q2 = DispatchQueue::create("q2");
  auto a = std::make_shared<Recorder>("A", journal);
  md.addDelegate(a, q1);
  md.addDelegate(a, q1);
  md.addDelegate(a, q2);
  md.invoke(&Pinged::sender_pinged, 1);
  flush(q1);
  flush(q2);
  EXPECT_EQ(journal.get().size(), 3u);
  md.removeDelegate(a.get(), q2.get());  // only the node on q2
  EXPECT_EQ(md.count(), 2u);
  md.removeDelegate(a.get());  // every other node
  EXPECT_EQ(md.count(), 0u);
  md.invoke(&Pinged::sender_pinged, 2);
  flush(q1);
  EXPECT_EQ(journal.get().size(), 3u);
}

TEST(AMulticastDelegate, PassesOverGoneDelegatesAndPrunesThemOnTheNextCallback) {
  GCDMulticastDelegate md;
  Journal journal;
  auto q = DispatchQueue::create("q");
  auto a = std::make_shared<Recorder>("A", journal);
  auto b = std::make_shared<Recorder>("B", journal);
  md.addDelegate(a, q);
  md.addDelegate(b, q);
  auto e = md.delegateEnumerator();
  a.reset();
  EXPECT_EQ(md.count(), 2u);
  EXPECT_EQ(md.countOfClass<Recorder>(), 1u);
  EXPECT_EQ(md.countForSelector<Pinged>(), 1u);
  std::shared_ptr<Delegate> d;
  ASSERT_TRUE(e.getNextDelegate(&d, nullptr));
  EXPECT_EQ(d, b);
  EXPECT_FALSE(e.getNextDelegate(&d, nullptr));
  md.invoke(&Pinged::sender_pinged, 1);
  EXPECT_EQ(md.count(), 1u);
  b.reset();
  d.reset();
  flush(q);  // the queued call held B until it ran
  EXPECT_FALSE(md.hasDelegateThatRespondsToSelector<Pinged>());
}

TEST(AMulticastDelegate, StillDeliversACallSentJustBeforeRemovalButNoneAfter) {
  GCDMulticastDelegate md;
  Journal journal;
  auto q = DispatchQueue::create("q");
  auto a = std::make_shared<Recorder>("A", journal);
  md.addDelegate(a, q);
  std::promise<void> gate;
  auto opened = gate.get_future().share();
  q->async([opened] { opened.wait(); });  // hold the queue
  md.invoke(&Pinged::sender_pinged, 1);
  md.removeDelegate(a.get());
  a.reset();  // the queued call keeps the delegate alive
  md.invoke(&Pinged::sender_pinged, 2);
  gate.set_value();
  flush(q);
  EXPECT_EQ(journal.get(), (std::vector<std::string>{"A1"}));
}

TEST(AMulticastDelegate, CopiesEveryKindOfArgument) {
  struct Receiver : Described {
    std::promise<void> got;
    int32_t i = 0;
    double d = 0;
    float f = 0;
    bool b = false;
    std::shared_ptr<std::string> object;
    void sender_described(int32_t i_, double d_, float f_, bool b_,
                          std::shared_ptr<std::string> o) override {
      i = i_, d = d_, f = f_, b = b_, object = o;
      got.set_value();
    }
  };
  GCDMulticastDelegate md;
  auto r = std::make_shared<Receiver>();
  auto q = DispatchQueue::create("q");
  md.addDelegate(r, q);
  auto object = std::make_shared<std::string>("payload");
  std::weak_ptr<std::string> watch = object;
  md.invoke(&Described::sender_described, -7, 2.5, 1.25f, true, object);
  object.reset();  // the call holds its own reference
  ASSERT_EQ(r->got.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_EQ(r->i, -7);
  EXPECT_EQ(r->d, 2.5);
  EXPECT_EQ(r->f, 1.25f);
  EXPECT_TRUE(r->b);
  ASSERT_TRUE(r->object);
  EXPECT_EQ(*r->object, "payload");
}

TEST(AMulticastDelegate, SurvivesCallbacksRacingListChanges) {
  GCDMulticastDelegate md;
  Journal journal;
  auto q = DispatchQueue::create("q");
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    while (!stop) md.invoke(&Pinged::sender_pinged, 0);
  });
  for (int i = 0; i < 2000; ++i) {
    auto r = std::make_shared<Recorder>("R", journal);
    md.addDelegate(r, q);
    if (i % 2) md.removeDelegate(r.get());
  }
  stop = true;
  sender.join();
  flush(q);
  md.invoke(&Pinged::sender_pinged, 0);  // prunes what is gone
  EXPECT_EQ(md.count(), 0u);
}

namespace {

class Module : public QLT_Object {
 public:
  static std::shared_ptr<Module> create(std::shared_ptr<DispatchQueue> q = nullptr) {
    return std::shared_ptr<Module>(new Module(std::move(q)));
  }
  void ping(int n) { multicastDelegate()->invoke(&Pinged::sender_pinged, n); }
  Journal hooks;

 protected:
  explicit Module(std::shared_ptr<DispatchQueue> q) : QLT_Object("Module", std::move(q)) {}
  void deviceObject_delegate_attached(QLT_Object* module, const std::shared_ptr<Delegate>& d,
                                      bool attached) override {
    EXPECT_EQ(module, this);
    EXPECT_TRUE(isOnModuleQueue());
    hooks.add(attached ? "attached" : "detached");
  }
};

}  // namespace

TEST(AModule, HasAQueueLabelledWithItsClassOrTheOneGiven) {
  auto m = Module::create();
  EXPECT_EQ(m->moduleName(), "Module");
  EXPECT_EQ(m->moduleQueue()->label(), "Module");
  EXPECT_FALSE(m->isOnModuleQueue());
  auto shared = DispatchQueue::create("given");
  auto n = Module::create(shared);
  EXPECT_EQ(n->moduleQueue(), shared);
  bool onQueue = false;
  shared->sync([&] { onQueue = n->isOnModuleQueue(); });
  EXPECT_TRUE(onQueue);
}

TEST(AModule, KeepsADelegateOnceAndMovesItToTheNewQueue) {
  test::LogCapture log;
  auto m = Module::create();
  Journal journal;
  auto a = std::make_shared<Recorder>("A", journal);
  auto q1 = DispatchQueue::create("q1");
  auto q2 = DispatchQueue::create("q2");
  m->addDelegate(a, q1);
  m->addDelegate(a, q2);
  flush(m->moduleQueue());
  EXPECT_EQ(log.count("Already in the queue"), 1u);
  EXPECT_EQ(m->multicastDelegate()->count(), 1u);
  std::shared_ptr<DispatchQueue> bound;
  auto e = m->multicastDelegate()->delegateEnumerator();
  ASSERT_TRUE(e.getNextDelegate(nullptr, &bound));
  EXPECT_EQ(bound, q2);
  EXPECT_EQ(m->hooks.get(), (std::vector<std::string>{"attached", "detached", "attached"}));
}

TEST(AModule, RemovesSynchronouslyFromAnyThreadIncludingItsOwnQueue) {
  auto m = Module::create();
  Journal journal;
  auto q = DispatchQueue::create("q");
  auto a = std::make_shared<Recorder>("A", journal);
  auto never = std::make_shared<Recorder>("N", journal);
  m->addDelegate(a, q);
  m->removeDelegate(never);  // never added: nothing changes, the hook still hears of it
  m->moduleQueue()->sync([&] { m->removeDelegate(a); });  // inline, no deadlock
  m->ping(1);
  flush(q);
  EXPECT_TRUE(journal.get().empty());
  EXPECT_EQ(m->hooks.get(), (std::vector<std::string>{"attached", "detached", "detached"}));
}

TEST(AModule, NeverCallsADelegateAfterRemoveDelegateReturns) {
  auto m = Module::create();
  auto q = DispatchQueue::create("q");
  std::atomic<bool> removed{false}, stop{false};
  std::atomic<int> late{0};
  struct Watcher : Pinged {
    std::atomic<bool>* removed;
    std::atomic<int>* late;
    std::atomic<int> received{0};
    void sender_pinged(int n) override {
      received++;
      if (n == 1 && removed->load()) (*late)++;
    }
  };
  auto w = std::make_shared<Watcher>();
  w->removed = &removed;
  w->late = &late;
  m->addDelegate(w, q);
  flush(m->moduleQueue());
  std::thread sender([&] {
    while (!stop) m->ping(removed ? 1 : 0);
  });
  ASSERT_TRUE(test::eventually([&] { return w->received > 100; }));
  m->removeDelegate(w);
  flush(q);  // calls queued before removal drain here
  removed = true;
  std::this_thread::sleep_for(20ms);
  stop = true;
  sender.join();
  flush(q);
  EXPECT_EQ(late, 0);
}
