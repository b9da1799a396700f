#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <set>

#include "core/tavo_video_node_link.h"
#include "core/tavo_video_vlink_node.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_nodes.h"

namespace {

std::shared_ptr<CountingNode> MakeNode(uint32_t id, bool start) {
  auto node = std::make_shared<CountingNode>(id);
  if (start) {
    node->StartProcess();
  }
  return node;
}

// Fan-out hands each started receiver its own reference and skips a stopped one.
// Without receivers, or once stopped, the producer still gets its frames back.
TEST(VlinkNodeTest, FanOutSkipsAStoppedReceiverAndUnsentFramesGoBack) {
  auto source = MakeNode(1, true);
  auto a = MakeNode(2, true);
  auto stopped = MakeNode(3, false);
  auto b = MakeNode(4, true);
  for (const auto& sink : {a, stopped, b}) {
    Link(source, sink);
  }
  std::atomic<int> refsSeen{0};
  auto recordRefs = [&](OsvGraphicBuffer* buffer) {
    refsSeen += static_cast<int>(buffer->GetRefCount());
  };
  a->onFrame = recordRefs;
  b->onFrame = recordRefs;

  OsvGraphicBuffer frame(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
  frame.SetReleaseTarget(source);
  frame.IncreaseRef();  // the producer's own hold
  EXPECT_EQ(source->SendBuffer(&frame), 0U);
  ASSERT_TRUE(a->handled.WaitFor(1));  // counted once the receiver let its reference go
  ASSERT_TRUE(b->handled.WaitFor(1));
  EXPECT_EQ(stopped->handled.Get(), 0);
  EXPECT_GE(refsSeen, 2);              // each started receiver held its own reference
  EXPECT_EQ(frame.GetRefCount(), 1U);  // the caller's reference is left as it was
  EXPECT_EQ(source->released.Get(), 0);
  // A receiver taken off gets nothing more; the others still do.
  Unlink(source, a);
  EXPECT_EQ(source->SendBuffer(&frame), 0U);
  ASSERT_TRUE(b->handled.WaitFor(2));
  EXPECT_EQ(a->handled.Get(), 1);
  frame.DecreaseRef();
  ASSERT_TRUE(source->released.WaitFor(1));

  for (const auto& sink : {stopped, b}) {
    Unlink(source, sink);
  }
  EXPECT_EQ(source->SendBuffer(&frame), 0U);
  ASSERT_TRUE(source->released.WaitFor(2));
  source->StopProcess();
  frame.IncreaseRef();
  frame.DecreaseRef();
  ASSERT_TRUE(source->released.WaitFor(3));
  source->DealTaskHandler(true);
  EXPECT_EQ(source->released.Get(), 3);  // each frame went back once
}

TEST(VlinkNodeTest, NeighboursMatchByIdLoopsAreRefusedAndLinksReportTheFailedStep) {
  auto node = MakeNode(1, false);
  auto peer = MakeNode(2, false);
  auto impostor = MakeNode(2, false);  // another object with the same id
  EXPECT_EQ(node->ConnectToNode(peer), 0U);
  EXPECT_EQ(node->ConnectToNode(peer), 1U);
  EXPECT_EQ(node->ConnectToNode(impostor), 1U);
  EXPECT_EQ(node->ConnectFromNode(peer), 0U);  // both upstream and downstream

  EXPECT_EQ(node->DisconnectFromNode(impostor, true), 0U);
  EXPECT_TRUE(node->GetPrevConnectList().empty());  // upstream goes first
  EXPECT_EQ(node->GetNextConnectList().size(), 1U);
  EXPECT_EQ(node->DisconnectFromNode(peer, true), 0U);
  EXPECT_FALSE(node->HasNextNodes());
  EXPECT_EQ(node->DisconnectFromNode(peer, true), 1U);
  EXPECT_EQ(node->DisconnectFromNode(nullptr, true), 0U);
  // A host's ids can name a node as its own sink or close a ring; frames would go round for
  // ever (and a watermark walk would never end).
  auto third = MakeNode(3, false);
  EXPECT_EQ(node->ConnectToNode(node), 1U);
  ASSERT_EQ(node->ConnectToNode(peer), 0U);
  ASSERT_EQ(peer->ConnectToNode(third), 0U);
  EXPECT_EQ(third->ConnectToNode(node), 1U);
  EXPECT_EQ(third->ConnectToNode(peer), 1U);
  EXPECT_EQ(node->ConnectToNode(third), 0U);  // a second path is no loop
  EXPECT_FALSE(third->HasNextNodes());
  for (const auto& linked : {node, peer}) {
    vlink::DropNeighbours(linked);
  }

  // Each step of a link can fail; the caller learns which, and either keeps what was made
  // (a host's bind) or has it taken off again.
  const struct {
    const char* name;
    std::function<void(CountingNode& sender, CountingNode& receiver)> arrange;
    vlink::LinkStep failed;
    size_t keptNext;  // sender's next list after a kept failure
    size_t keptPrev;  // receiver's previous list after a kept failure
  } cases[] = {
      {"sender half refused",
       [](CountingNode& s, CountingNode& r) { r.ConnectToNode(s.shared_from_this()); },
       vlink::LinkStep::kSenderSide, 0, 0},
      {"receiver half refused",
       [](CountingNode& s, CountingNode& r) { r.ConnectFromNode(s.shared_from_this()); },
       vlink::LinkStep::kReceiverSide, 1, 1},
      {"start refused", [](CountingNode&, CountingNode& r) { r.startResult = 7; },
       vlink::LinkStep::kStart, 1, 1},
      // A bind racing with a destroy: a shut-down node gains no neighbour to hold for good.
      {"sender shut down", [](CountingNode& s, CountingNode&) { s.Shutdown(); },
       vlink::LinkStep::kSenderSide, 0, 0},
      {"receiver shut down", [](CountingNode&, CountingNode& r) { r.Shutdown(); },
       vlink::LinkStep::kReceiverSide, 1, 0},
  };
  for (const auto& c : cases) {
    for (const vlink::OnLinkFailure policy :
         {vlink::OnLinkFailure::kKeep, vlink::OnLinkFailure::kUndo}) {
      SCOPED_TRACE(c.name);
      const bool undo = policy == vlink::OnLinkFailure::kUndo;
      auto sender = MakeNode(1, false);
      auto receiver = MakeNode(2, false);
      c.arrange(*sender, *receiver);
      const size_t prevBefore = receiver->GetPrevConnectList().size();
      const vlink::LinkResult link = vlink::LinkNodes(sender, receiver, {.onFailure = policy});
      EXPECT_EQ(link.failed, c.failed);
      EXPECT_EQ(link.code, c.failed == vlink::LinkStep::kStart ? 7U : 1U);
      EXPECT_EQ(sender->GetNextConnectList().size(), undo ? 0U : c.keptNext);
      EXPECT_EQ(receiver->GetPrevConnectList().size(), undo ? prevBefore : c.keptPrev);
      vlink::DropNeighbours(sender);
      vlink::DropNeighbours(receiver);
    }
  }
  ASSERT_EQ(vlink::LinkNodes(node, peer).code, 0U);
  EXPECT_TRUE(peer->IsStarted());
  EXPECT_EQ(vlink::UnlinkNodes(node, peer).code, 0U);
  EXPECT_EQ(vlink::UnlinkNodes(node, peer, vlink::UnlinkOrder::kReceiverFirst).failed,
            vlink::LinkStep::kReceiverSide);
  peer->StopProcess();
}

TEST(VlinkNodeTest, QueuedTasksKeepTheirNodeAliveAndAStopWaitsForThem) {
  auto source = MakeNode(1, true);
  auto sink = MakeNode(2, true);
  Link(source, sink);
  Gate gate;
  sink->onFrame = [&](OsvGraphicBuffer*) { gate.Pass(); };
  CountLatch destroyed;
  sink->onDestroy = [&] { destroyed.Add(); };
  constexpr int kFrames = 12;  // more than the pool has workers: some stay queued
  OsvGraphicBuffer frame(8, 8, TAVO_VIDEO_VLINK_FORMAT_I420);
  for (int i = 0; i < kFrames; ++i) {
    source->SendBuffer(&frame);
  }
  Unlink(source, sink);
  sink.reset();  // the last owner outside the pool lets go with tasks still queued
  EXPECT_EQ(destroyed.Get(), 0);
  gate.Open();
  ASSERT_TRUE(destroyed.WaitFor(1));
  EXPECT_TRUE(frame.IsAvailable());  // every task ran and dropped its reference
  // A stop refuses new frames and waits for the queued ones.
  auto node = MakeNode(1, true);
  Gate stopGate;
  node->onFrame = [&](OsvGraphicBuffer*) { stopGate.Pass(); };
  OsvGraphicBuffer held(8, 8, TAVO_VIDEO_VLINK_FORMAT_I420);
  FrameRef first = FrameRef::Share(&held);
  ASSERT_EQ(node->QueueBuffer(first), 0U);
  EXPECT_FALSE(first);  // the task took it
  auto stopper = std::async(std::launch::async, [&] { return node->StopProcess(); });
  // The stop clears the started flag before it waits, so new frames are refused at once.
  ASSERT_TRUE(node->stopping.WaitFor(1));
  FrameRef late = FrameRef::Share(&held);
  EXPECT_EQ(node->QueueBuffer(late), 1U);
  EXPECT_TRUE(late);  // left with the caller
  late.Reset();
  EXPECT_EQ(stopper.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  stopGate.Open();
  EXPECT_EQ(stopper.get(), 0U);
  EXPECT_TRUE(held.IsAvailable());
  EXPECT_EQ(node->StopProcess(), 0U);  // a second stop does nothing
}

}  // namespace

// A sink stuck in its frame handling ties up one worker, not the pool: the other sink of the
// same source gets every frame meanwhile, even one that refuses each (a failure that repeats
// with every frame is logged once per hundred). Of the frames offered while it is stuck, the
// stuck one keeps the newest and lets the oldest go beyond its backlog, back to the producer
// at once. Every frame goes back to the producer exactly once.
TEST(VlinkNodeTest, AStuckSinkHoldsOneWorkerAndDropsItsOldestFrames) {
  constexpr int kFrames = 200;
  constexpr int kBacklog = static_cast<int>(VideoVlinkNode::kMaxBacklog);
  LogCapture logs;
  auto source = MakeNode(1, true);
  auto stuck = MakeNode(2, true);
  auto refuser = MakeNode(3, true);
  refuser->handleResult = 1;
  Link(source, stuck);
  Link(source, refuser);
  std::vector<std::unique_ptr<OsvGraphicBuffer>> frames;
  Gate gate;
  CountLatch entered;
  std::mutex seenLock;
  std::set<OsvGraphicBuffer*> seen;
  stuck->onFrame = [&](OsvGraphicBuffer* frame) {
    {
      std::lock_guard<std::mutex> lock(seenLock);
      EXPECT_TRUE(seen.insert(frame).second) << "a frame reached the stuck sink twice";
    }
    entered.Add();
    gate.Pass();
  };
  for (int i = 0; i < kFrames; ++i) {
    frames.push_back(std::make_unique<OsvGraphicBuffer>(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420));
    frames.back()->SetReleaseTarget(source);
    frames.back()->IncreaseRef();
    source->SendBuffer(frames.back().get());
    frames.back()->DecreaseRef();
    if (i == 0) {
      ASSERT_TRUE(entered.WaitFor(1));  // stuck from here on
    } else if (i % 50 == 49) {          // within the refuser's backlog
      ASSERT_TRUE(refuser->handled.WaitFor(i + 1));
    }
  }
  ASSERT_TRUE(refuser->handled.WaitFor(kFrames));
  ASSERT_TRUE(source->released.WaitFor(kFrames - 1 - kBacklog));
  EXPECT_EQ(stuck->handled.Get(), 0);
  gate.Open();
  ASSERT_TRUE(source->released.WaitFor(kFrames));
  stuck->DealTaskHandler(true);
  source->DealTaskHandler(true);
  EXPECT_EQ(source->released.Get(), kFrames);
  EXPECT_EQ(stuck->handled.Get(), 1 + kBacklog);
  for (const auto& frame : frames) {
    EXPECT_TRUE(frame->IsAvailable());
  }
  const size_t errors = logs.CountModule("[TEST_3] HandleBuffer error!", 1);
  EXPECT_GE(errors, 1U);
  EXPECT_LE(errors, static_cast<size_t>(kFrames / 100 + 1));
  std::lock_guard<std::mutex> lock(seenLock);
  EXPECT_EQ(seen.count(frames.back().get()), 1U);  // the newest is kept
  Unlink(source, stuck);
  Unlink(source, refuser);
}
