#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "QueltLibrary/GCDMulticastDelegate.h"
#include "QueltLibrary/QLT_Object.h"
#include "support/TestSupport.h"

using namespace qlt;
using Entries = std::vector<std::string>;

namespace {

// A made-up callback (its argument may be slow to copy) and a delegate that notes
// "<name><n>@<queue label>" of every call in one shared journal.
struct Slow {
  int n = 0;
  bool slow = false;
  Slow(int n = 0, bool slow = false) : n(n), slow(slow) {}
  Slow(const Slow& o) : n(o.n), slow(o.slow) {
    auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(slow ? 20 : 0);
    while (std::chrono::steady_clock::now() < until) {}
  }
};
struct Pinged : virtual Delegate {
  virtual void sender_pinged(Slow s) = 0;
};
std::mutex journalMutex;
Entries journal;
Entries entries() {
  std::lock_guard lock(journalMutex);
  return journal;
}
struct Recorder : Pinged {
  explicit Recorder(std::string name) : name(std::move(name)) {}
  void sender_pinged(Slow s) override {
    std::lock_guard lock(journalMutex);
    journal.push_back(name + std::to_string(s.n) + "@" + DispatchQueue::currentLabel());
  }
  std::string name;
};
void flush(const std::shared_ptr<DispatchQueue>& q) {
  q->sync([] {});
}

class AMulticastDelegate : public ::testing::Test {
  void SetUp() override {
    std::lock_guard lock(journalMutex);
    journal.clear();
  }
};
using AModule = AMulticastDelegate;

class Module : public QLT_Object {
 public:
  Module() : QLT_Object("Module") {}
  void ping(int n) { multicastDelegate()->invoke(&Pinged::sender_pinged, Slow(n)); }
  Entries hooks;  // written on the module queue

 protected:
  void deviceObject_delegate_attached(QLT_Object* module, const std::shared_ptr<Delegate>&,
                                      bool attached) override {
    hooks.push_back(module == this && isOnModuleQueue() ? (attached ? "+" : "-") : "?");
  }
};

}  // namespace

TEST_F(AMulticastDelegate, DeliversInNodeOrderOnEachDelegatesQueueNeverInlineAndDropsTheRest) {
  GCDMulticastDelegate md;
  auto shared = DispatchQueue::create("shared"), own = DispatchQueue::create("own");
  auto a = std::make_shared<Recorder>("A"), b = std::make_shared<Recorder>("B");
  auto c = std::make_shared<Recorder>("C");
  for (auto [d, q] :
       {std::pair<std::shared_ptr<Delegate>, std::shared_ptr<DispatchQueue>>{a, shared},
        {std::make_shared<Delegate>(), shared},
        {nullptr, shared},
        {b, shared},
        {c, own}})
    md.addDelegate(d, q);  // a delegate implementing nothing is passed over; null is ignored
  EXPECT_EQ(md.countForSelector<Pinged>(), 3u);
  shared->sync([&] {  // sent from the delegates' own queue: still a later, separate task
    md.invoke(&Pinged::sender_pinged, Slow(1));
    md.invoke(&Pinged::sender_pinged, Slow(2));
    EXPECT_LE(entries().size(), 2u) << "a delivery ran inline on the sender";
  });
  flush(shared);
  flush(own);
  auto got = entries();
  std::erase_if(got, [](const std::string& e) { return e[0] == 'C'; });
  EXPECT_EQ(got, (Entries{"A1@shared", "B1@shared", "A2@shared", "B2@shared"}));
  EXPECT_EQ(entries().size(), 6u);
}

TEST_F(AMulticastDelegate, CallsADelegateAddedTwiceTwiceAndRemovesByQueueOrAll) {
  GCDMulticastDelegate md;
  auto q1 = DispatchQueue::create("q1"), q2 = DispatchQueue::create("q2");
  auto a = std::make_shared<Recorder>("A");
  for (auto& q : {q1, q1, q2}) md.addDelegate(a, q);
  md.invoke(&Pinged::sender_pinged, Slow(1));
  md.removeDelegate(a.get(), q2.get());  // only the node on q2
  EXPECT_EQ(md.count(), 2u);
  md.removeDelegate(a.get());  // every other node
  md.invoke(&Pinged::sender_pinged, Slow(2));
  flush(q1);
  flush(q2);
  EXPECT_EQ(md.count(), 0u);
  auto got = entries();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (Entries{"A1@q1", "A1@q1", "A1@q2"}));
}

TEST_F(AMulticastDelegate, PassesOverGoneDelegatesPrunesThemAndStillDeliversWhatWasQueued) {
  GCDMulticastDelegate md;
  auto q = DispatchQueue::create("q");
  auto a = std::make_shared<Recorder>("A"), b = std::make_shared<Recorder>("B");
  md.addDelegate(a, q);
  md.addDelegate(b, q);
  auto e = md.delegateEnumerator();
  a.reset();
  EXPECT_EQ(std::make_pair(md.count(), md.countOfClass<Recorder>()), std::make_pair(2ul, 1ul));
  std::shared_ptr<Delegate> d;
  std::shared_ptr<DispatchQueue> dq;
  ASSERT_TRUE(e.getNextDelegate(&d, &dq));
  EXPECT_EQ(std::make_pair(d, dq), std::make_pair(std::shared_ptr<Delegate>(b), q));
  EXPECT_FALSE(e.getNextDelegate(&d, nullptr));
  d.reset();
  std::promise<void> gate;
  q->async([opened = gate.get_future().share()] { opened.wait(); });  // hold the queue
  md.invoke(&Pinged::sender_pinged, Slow(1));
  EXPECT_EQ(md.count(), 1u);
  md.removeDelegate(b.get());
  b.reset();  // the queued call holds B until it runs
  md.invoke(&Pinged::sender_pinged, Slow(2));
  gate.set_value();
  flush(q);
  EXPECT_EQ(entries(), Entries{"B1@q"});
  EXPECT_FALSE(md.hasDelegateThatRespondsToSelector<Pinged>());
}

TEST_F(AModule, HasItsOwnQueueAndKeepsADelegateOnceOnTheNewQueueOrByDefaultTheMainQueue) {
  test::LogCapture log;
  auto m = std::make_shared<Module>();
  EXPECT_EQ(m->moduleQueue()->label(), "Module");
  EXPECT_FALSE(m->isOnModuleQueue());
  auto a = std::make_shared<Recorder>("A");
  m->addDelegate(a, DispatchQueue::create("q1"));
  m->addDelegate(a, DispatchQueue::create("q2"));  // moves it
  flush(m->moduleQueue());
  EXPECT_EQ(m->multicastDelegate()->count(), 1u);
  m->ping(1);
  m->addDelegate(a);
  m->removeDelegate(std::make_shared<Recorder>("N"));  // never added: hook still told
  m->moduleQueue()->sync([&] { m->ping(2); });         // inline, no deadlock
  ASSERT_TRUE(test::eventually([&] { return entries().size() == 2; }));
  m->moduleQueue()->sync([&] { m->removeDelegate(a); });
  m->ping(3);
  flush(DispatchQueue::main());
  auto got = entries();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (Entries{"A1@q2", "A2@qlt.main"}));
  EXPECT_EQ(log.count("Already in the queue"), 2u);
  EXPECT_EQ(m->hooks, (Entries{"+", "-", "+", "-", "+", "-", "-"}));
}

TEST_F(AModule, NeverCallsADelegateAfterRemoveDelegateReturns) {
  // Two senders call without pause, each call slow to copy, while delegates come and go.
  // After each removal a marker is queued on the delegate's queue: a call that runs after
  // it was queued after removeDelegate returned.
  struct Watcher : Pinged {
    std::atomic<int> received{0}, late{0};
    bool removed = false;  // set by the marker, on the delegate's queue
    void sender_pinged(Slow) override { removed ? late++ : received++; }
  };
  auto m = std::make_shared<Module>();
  std::atomic<bool> stop{false};
  auto send = [&] {
    while (!stop) m->multicastDelegate()->invoke(&Pinged::sender_pinged, Slow(0, true));
  };
  std::thread s1(send), s2(send);
  std::vector<std::pair<std::shared_ptr<Watcher>, std::shared_ptr<DispatchQueue>>> rounds(100);
  for (auto& [w, q] : rounds) {
    w = std::make_shared<Watcher>();
    q = DispatchQueue::create("q");
    m->addDelegate(w, q);
    ASSERT_TRUE(test::eventually([&] { return w->received > 0; }));
    m->removeDelegate(w);
    q->async([w] { w->removed = true; });
  }
  stop = true;
  s1.join();
  s2.join();
  int late = 0;
  for (auto& [w, q] : rounds) {
    flush(q);
    late += w->late;
  }
  EXPECT_EQ(late, 0) << "calls queued after removeDelegate returned";
  m->ping(0);  // gone delegates are pruned
  EXPECT_EQ(m->multicastDelegate()->count(), 0u);
}
