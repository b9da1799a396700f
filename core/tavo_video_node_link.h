// One link between two nodes as one operation: the sender's half (its next list), the
// receiver's half (its previous list) and, when asked, the receiver's start; and the same
// taken apart again. Nothing here logs: each caller names the failed step in its own
// messages, which are part of what the host sees.
#pragma once

#include <cstdint>

#include "core/tavo_video_vlink_node.h"

namespace vlink {

using NodePtr = VideoVlinkNode::NodePtr;

// The step that failed: for a link, the sender's ConnectToNode, the receiver's
// ConnectFromNode or its StartProcess; for an unlink, the sender's or the receiver's
// DisconnectFromNode.
enum class LinkStep : uint8_t { kNone, kSenderSide, kReceiverSide, kStart };

struct LinkResult {
  uint32_t code = 0;  // 0, or the failing node operation's own code
  LinkStep failed = LinkStep::kNone;
};

// What a failed link leaves in place. A host's bind keeps every step made before the failing
// one (the host sees a partial link and may unbind it); kUndo takes the made steps off again
// (a started receiver is not stopped: starting is that node's business).
enum class OnLinkFailure : uint8_t { kKeep, kUndo };

struct LinkOptions {
  bool startReceiver = true;
  OnLinkFailure onFailure = OnLinkFailure::kKeep;
};

// sender -> receiver. Both must be non-null.
LinkResult LinkNodes(const NodePtr& sender, const NodePtr& receiver, LinkOptions options = {});

// Which half goes first; the camera's unbind takes the receiver's half first.
enum class UnlinkOrder : uint8_t { kSenderFirst, kReceiverFirst };

// Both halves of sender -> receiver off, stopping at the first failure. Both non-null.
LinkResult UnlinkNodes(const NodePtr& sender, const NodePtr& receiver,
                       UnlinkOrder order = UnlinkOrder::kSenderFirst);

// Drops node's own references to all its neighbours and leaves theirs to them: only node's
// lock is taken, so a neighbour may be inside a host callback under its own.
void DropNeighbours(const NodePtr& node);

}  // namespace vlink
