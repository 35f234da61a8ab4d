#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "QueltLibrary/GCDMulticastDelegate.h"
#include "QueltLibrary/QLT_Object.h"
#include "support/TestSupport.h"

using namespace qlt;
using namespace std::chrono_literals;
using Entries = std::vector<std::string>;

namespace {

// A callback of a made-up sender, and a delegate that notes "<name><n>@<queue label>".
struct Pinged : virtual Delegate {
  virtual void sender_pinged(int n) = 0;
};
struct Journal {
  std::mutex mutex;
  Entries entries;
  Entries get() {
    std::lock_guard lock(mutex);
    return entries;
  }
};
struct Recorder : Pinged {
  Recorder(std::string name, Journal& journal) : name(std::move(name)), journal(journal) {}
  void sender_pinged(int n) override {
    std::lock_guard lock(journal.mutex);
    journal.entries.push_back(name + std::to_string(n) + "@" + DispatchQueue::currentLabel());
  }
  std::string name;
  Journal& journal;
};

void flush(const std::shared_ptr<DispatchQueue>& q) { q->sync([] {}); }

}  // namespace

TEST(AMulticastDelegate, DeliversInNodeOrderOnEachDelegatesQueueNeverInlineAndDropsTheRest) {
  GCDMulticastDelegate md;
  Journal journal;
  md.invoke(&Pinged::sender_pinged, 0);  // an empty list
  EXPECT_FALSE(md.hasDelegateThatRespondsToSelector<Pinged>());
  auto shared = DispatchQueue::create("shared"), own = DispatchQueue::create("own");
  auto a = std::make_shared<Recorder>("A", journal), b = std::make_shared<Recorder>("B", journal);
  auto c = std::make_shared<Recorder>("C", journal);
  auto silent = std::make_shared<Delegate>();
  md.addDelegate(a, shared);
  md.addDelegate(silent, shared);  // implements nothing: passed over
  md.addDelegate(nullptr, shared);  // ignored
  md.addDelegate(b, shared);
  md.addDelegate(c, own);
  EXPECT_EQ(md.count(), 4u);
  EXPECT_EQ(md.countForSelector<Pinged>(), 3u);
  shared->sync([&] {  // sent from the delegates' own queue: still a later, separate task
    md.invoke(&Pinged::sender_pinged, 1);
    md.invoke(&Pinged::sender_pinged, 2);
    EXPECT_TRUE(journal.get().size() <= 2u) << "a delivery ran inline on the sender";
  });
  flush(shared);
  flush(own);
  auto got = journal.get();
  std::erase_if(got, [](const std::string& e) { return e[0] == 'C'; });
  EXPECT_EQ(got, (Entries{"A1@shared", "B1@shared", "A2@shared", "B2@shared"}));
  EXPECT_EQ(journal.get().size(), 6u);
}

TEST(AMulticastDelegate, CallsADelegateAddedTwiceTwiceAndRemovesByQueueOrAll) {
  GCDMulticastDelegate md;
  Journal journal;
  auto q1 = DispatchQueue::create("q1"), q2 = DispatchQueue::create("q2");
  auto a = std::make_shared<Recorder>("A", journal);
  for (auto& q : {q1, q1, q2}) md.addDelegate(a, q);
  md.invoke(&Pinged::sender_pinged, 1);
  md.removeDelegate(a.get(), q2.get());  // only the node on q2
  EXPECT_EQ(md.count(), 2u);
  md.removeDelegate(a.get());  // every other node
  EXPECT_EQ(md.count(), 0u);
  md.invoke(&Pinged::sender_pinged, 2);
  flush(q1);
  flush(q2);
  EXPECT_EQ(journal.get(), (Entries{"A1@q1", "A1@q1", "A1@q2"}));
}

TEST(AMulticastDelegate, PassesOverGoneDelegatesPrunesThemAndStillDeliversWhatWasQueued) {
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
  std::shared_ptr<Delegate> d;
  std::shared_ptr<DispatchQueue> dq;
  ASSERT_TRUE(e.getNextDelegate(&d, &dq));
  EXPECT_EQ(std::make_pair(d, dq), std::make_pair(std::shared_ptr<Delegate>(b), q));
  EXPECT_FALSE(e.getNextDelegate(&d, nullptr));
  d.reset();
  std::promise<void> gate;
  q->async([opened = gate.get_future().share()] { opened.wait(); });  // hold the queue
  md.invoke(&Pinged::sender_pinged, 1);
  EXPECT_EQ(md.count(), 1u);
  md.removeDelegate(b.get());
  b.reset();  // the queued call holds B until it runs
  md.invoke(&Pinged::sender_pinged, 2);
  gate.set_value();
  flush(q);
  EXPECT_EQ(journal.get(), Entries{"B1@q"});
  EXPECT_FALSE(md.hasDelegateThatRespondsToSelector<Pinged>());
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
  EXPECT_EQ(std::make_tuple(i, d, fl, b, *o), std::make_tuple(-7, 2.5, 1.25f, true, "payload"));
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
  void deviceObject_delegate_attached(QLT_Object* module, const std::shared_ptr<Delegate>&,
                                      bool attached) override {
    std::lock_guard lock(hooks.mutex);
    hooks.entries.push_back(module == this && isOnModuleQueue() ? (attached ? "+" : "-") : "?");
  }
};

}  // namespace

TEST(AModule, HasItsOwnQueueAndKeepsADelegateOnceOnTheNewQueueOrByDefaultTheMainQueue) {
  auto shared = DispatchQueue::create("given");
  auto n = Module::create(shared);
  bool onQueue = false;
  shared->sync([&] { onQueue = n->isOnModuleQueue(); });
  EXPECT_TRUE(onQueue);
  test::LogCapture log;
  auto m = Module::create();
  EXPECT_EQ(m->moduleQueue()->label(), "Module");
  EXPECT_FALSE(m->isOnModuleQueue());
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
  ASSERT_TRUE(test::eventually([&] { return journal.get().size() == 2; }));
  auto got = journal.get();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (Entries{"A1@q2", "A2@qlt.main"}));
  EXPECT_EQ(m->hooks.get(), (Entries{"+", "-", "+", "-", "+"}));
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
  EXPECT_EQ(m->hooks.get(), (Entries{"+", "-", "-"}));
}

namespace {

// An argument whose copy takes a while: a delivery spends most of its time copying it.
struct Slow {
  Slow() = default;
  Slow(const Slow&) {
    for (auto until = std::chrono::steady_clock::now() + 20us;
         std::chrono::steady_clock::now() < until;) {
    }
  }
};

}  // namespace

TEST(AModule, NeverCallsADelegateAfterRemoveDelegateReturns) {
  // Two senders call without pause while delegates come and go. After each removal a
  // marker is queued on the delegate's queue: a call running after it was queued after
  // removeDelegate returned.
  struct Watcher : virtual Delegate {
    std::atomic<int> received{0}, late{0};
    bool removed = false;  // set by the marker, on the delegate's queue
    void sender_slowPinged(Slow) { removed ? late++ : received++; }
  };
  auto m = Module::create();
  std::atomic<bool> stop{false};
  std::vector<std::thread> senders;
  for (int i = 0; i < 2; ++i) {
    senders.emplace_back([&] {
      while (!stop) m->multicastDelegate()->invoke(&Watcher::sender_slowPinged, Slow());
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
  m->ping(0);  // gone delegates are pruned
  EXPECT_EQ(m->multicastDelegate()->count(), 0u);
}
