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

// A callback of a made-up sender, and a delegate that notes "<name><n>@<queue label>".
class Pinged : public virtual Delegate {
 public:
  virtual void sender_pinged(int n) = 0;
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
  void sender_pinged(int n) override {
    journal_.add(name_ + std::to_string(n) + "@" + DispatchQueue::currentLabel());
  }

 private:
  std::string name_;
  Journal& journal_;
};

void flush(const std::shared_ptr<DispatchQueue>& q) { q->sync([] {}); }

}  // namespace

TEST(AMulticastDelegate, DropsACallbackNobodyImplements) {
  GCDMulticastDelegate md;
  md.invoke(&Pinged::sender_pinged, 1);  // empty list
  EXPECT_FALSE(md.hasDelegateThatRespondsToSelector<Pinged>());
  auto silent = std::make_shared<Delegate>();
  md.addDelegate(silent, DispatchQueue::create("q"));
  md.addDelegate(nullptr, DispatchQueue::create("q"));  // ignored
  md.invoke(&Pinged::sender_pinged, 2);
  EXPECT_EQ(md.countForSelector<Pinged>(), 0u);
  EXPECT_FALSE(md.hasDelegateThatRespondsToSelector<Pinged>());
  EXPECT_EQ(md.count(), 1u);
}

TEST(AMulticastDelegate, DeliversInNodeOrderOnEachDelegatesQueueNeverInline) {
  GCDMulticastDelegate md;
  Journal journal;
  auto shared = DispatchQueue::create("shared"), own = DispatchQueue::create("own");
  auto a = std::make_shared<Recorder>("A", journal), b = std::make_shared<Recorder>("B", journal);
  auto c = std::make_shared<Recorder>("C", journal);
  md.addDelegate(a, shared);
  md.addDelegate(b, shared);
  md.addDelegate(c, own);
  // Sent from a task on the delegates' own queue: still a separate, later task.
  shared->sync([&] {
    md.invoke(&Pinged::sender_pinged, 1);
    md.invoke(&Pinged::sender_pinged, 2);
    EXPECT_TRUE(journal.get().size() <= 2u) << "a delivery ran inline on the sender";
  });
  flush(shared);
  flush(own);
  auto got = journal.get();
  std::erase_if(got, [](const std::string& e) { return e[0] == 'C'; });
  EXPECT_EQ(got, (std::vector<std::string>{"A1@shared", "B1@shared", "A2@shared", "B2@shared"}));
  auto all = journal.get();
  EXPECT_EQ(std::count(all.begin(), all.end(), "C1@own"), 1);
  EXPECT_EQ(std::count(all.begin(), all.end(), "C2@own"), 1);
}

TEST(AMulticastDelegate, CallsADelegateAddedTwiceTwiceAndRemovesByQueueOrAll) {
  GCDMulticastDelegate md;
  Journal journal;
  auto q1 = DispatchQueue::create("q1"), q2 = DispatchQueue::create("q2");
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
  auto a = std::make_shared<Recorder>("A", journal), b = std::make_shared<Recorder>("B", journal);
  md.addDelegate(a, q);
  md.addDelegate(b, q);
  auto e = md.delegateEnumerator();
  a.reset();
  EXPECT_EQ(md.count(), 2u);
  EXPECT_EQ(md.countOfClass<Recorder>(), 1u);
  EXPECT_EQ(md.countForSelector<Pinged>(), 1u);
  std::shared_ptr<Delegate> d;
  std::shared_ptr<DispatchQueue> dq;
  ASSERT_TRUE(e.getNextDelegate(&d, &dq));
  EXPECT_EQ(d, b);
  EXPECT_EQ(dq, q);
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
  q->async([opened = gate.get_future().share()] { opened.wait(); });  // hold the queue
  md.invoke(&Pinged::sender_pinged, 1);
  md.removeDelegate(a.get());
  a.reset();  // the queued call keeps the delegate alive
  md.invoke(&Pinged::sender_pinged, 2);
  gate.set_value();
  flush(q);
  EXPECT_EQ(journal.get(), (std::vector<std::string>{"A1@q"}));
}

TEST(AMulticastDelegate, CopiesEveryKindOfArgument) {
  using Object = std::shared_ptr<std::string>;
  struct Described : virtual Delegate {
    std::promise<std::tuple<int32_t, double, float, bool, Object>> got;
    void sender_described(int32_t i, double d, float f, bool b, Object o) {
      got.set_value({i, d, f, b, o});
    }
  };
  GCDMulticastDelegate md;
  auto r = std::make_shared<Described>();
  md.addDelegate(r, DispatchQueue::create("q"));
  auto object = std::make_shared<std::string>("payload");
  md.invoke(&Described::sender_described, -7, 2.5, 1.25f, true, object);
  object.reset();  // the call holds its own reference
  auto f = r->got.get_future();
  ASSERT_EQ(f.wait_for(5s), std::future_status::ready);
  auto [i, d, fl, b, o] = f.get();
  EXPECT_EQ(i, -7);
  EXPECT_EQ(d, 2.5);
  EXPECT_EQ(fl, 1.25f);
  EXPECT_TRUE(b);
  ASSERT_TRUE(o);
  EXPECT_EQ(*o, "payload");
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

// An argument whose copy takes a while: a delivery spends most of its time copying it.
struct Slow {
  Slow() = default;
  Slow(const Slow&) {
    const auto until = std::chrono::steady_clock::now() + 20us;
    while (std::chrono::steady_clock::now() < until) {}
  }
};
class SlowPinged : public virtual Delegate {
 public:
  virtual void sender_slowPinged(Slow) = 0;
};

class Module : public QLT_Object {
 public:
  static std::shared_ptr<Module> create(std::shared_ptr<DispatchQueue> q = nullptr) {
    return std::shared_ptr<Module>(new Module(std::move(q)));
  }
  void ping(int n) { multicastDelegate()->invoke(&Pinged::sender_pinged, n); }
  Journal hooks;

 protected:
  explicit Module(std::shared_ptr<DispatchQueue> q) : QLT_Object("Module", std::move(q)) {}
  void deviceObject_delegate_attached(QLT_Object* module, const std::shared_ptr<Delegate>&,
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

TEST(AModule, KeepsADelegateOnceMovingItToTheNewQueueAndBindsToTheMainQueueByDefault) {
  test::LogCapture log;
  auto m = Module::create();
  Journal journal;
  auto a = std::make_shared<Recorder>("A", journal);
  m->addDelegate(a, DispatchQueue::create("q1"));
  m->addDelegate(a, DispatchQueue::create("q2"));
  flush(m->moduleQueue());
  EXPECT_EQ(log.count("Already in the queue"), 1u);
  EXPECT_EQ(m->multicastDelegate()->count(), 1u);
  m->ping(1);
  m->addDelegate(a);
  flush(m->moduleQueue());
  m->ping(2);
  EXPECT_TRUE(test::eventually([&] { return journal.get().size() == 2; }));
  DispatchQueue::main()->sync([] {});
  EXPECT_EQ(journal.get(), (std::vector<std::string>{"A1@q2", "A2@qlt.main"}));
  EXPECT_EQ(m->hooks.get(), (std::vector<std::string>{"attached", "detached", "attached",
                                                      "detached", "attached"}));
}

TEST(AModule, RemovesSynchronouslyFromAnyThreadIncludingItsOwnQueue) {
  auto m = Module::create();
  Journal journal;
  auto q = DispatchQueue::create("q");
  auto a = std::make_shared<Recorder>("A", journal);
  m->addDelegate(a, q);
  m->removeDelegate(std::make_shared<Recorder>("N", journal));  // never added: hook still told
  m->moduleQueue()->sync([&] { m->removeDelegate(a); });         // inline, no deadlock
  m->ping(1);
  flush(q);
  EXPECT_TRUE(journal.get().empty());
  EXPECT_EQ(m->hooks.get(), (std::vector<std::string>{"attached", "detached", "detached"}));
}

TEST(AModule, NeverCallsADelegateAfterRemoveDelegateReturns) {
  // Senders call without pause. After each removal a marker is queued on the delegate's
  // queue: a call that runs after the marker was queued after removeDelegate returned.
  struct Watcher : SlowPinged {
    std::atomic<int> received{0}, late{0};
    bool removed = false;  // set by the marker, on the delegate's queue
    void sender_slowPinged(Slow) override { removed ? late++ : received++; }
  };
  auto m = Module::create();
  std::atomic<bool> stop{false};
  std::vector<std::thread> senders;
  for (int i = 0; i < 2; ++i) {
    senders.emplace_back([&] {
      while (!stop) m->multicastDelegate()->invoke(&SlowPinged::sender_slowPinged, Slow());
    });
  }
  std::vector<std::pair<std::shared_ptr<Watcher>, std::shared_ptr<DispatchQueue>>> rounds;
  for (int round = 0; round < 100; ++round) {
    auto w = std::make_shared<Watcher>();
    auto q = DispatchQueue::create("q");
    m->addDelegate(w, q);
    ASSERT_TRUE(test::eventually([&] { return w->received > 0; }));
    m->removeDelegate(w);
    q->async([w] { w->removed = true; });
    rounds.emplace_back(w, q);
  }
  stop = true;
  for (auto& t : senders) t.join();
  int late = 0;
  for (auto& [w, q] : rounds) {
    flush(q);
    late += w->late;
  }
  EXPECT_EQ(late, 0) << "calls queued after removeDelegate returned";
}
