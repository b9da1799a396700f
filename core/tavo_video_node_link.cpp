#include "core/tavo_video_node_link.h"

namespace vlink {

LinkResult LinkNodes(const NodePtr& sender, const NodePtr& receiver, LinkOptions options) {
  const bool undo = options.onFailure == OnLinkFailure::kUndo;
  LinkResult result;
  result.code = sender->ConnectToNode(receiver);
  if (result.code != 0) {
    result.failed = LinkStep::kSenderSide;
    return result;
  }
  result.code = receiver->ConnectFromNode(sender);
  if (result.code != 0) {
    result.failed = LinkStep::kReceiverSide;
    if (undo) {
      sender->DisconnectFromNode(receiver, true);
    }
    return result;
  }
  if (options.startReceiver) {
    result.code = receiver->StartProcess();
    if (result.code != 0) {
      result.failed = LinkStep::kStart;
      if (undo) {
        UnlinkNodes(sender, receiver);
      }
    }
  }
  return result;
}

LinkResult UnlinkNodes(const NodePtr& sender, const NodePtr& receiver, UnlinkOrder order) {
  LinkResult result;
  const auto senderSide = [&] {
    result.code = sender->DisconnectFromNode(receiver, true);
    result.failed = result.code != 0 ? LinkStep::kSenderSide : LinkStep::kNone;
    return result.code == 0;
  };
  const auto receiverSide = [&] {
    result.code = receiver->DisconnectFromNode(sender, false);
    result.failed = result.code != 0 ? LinkStep::kReceiverSide : LinkStep::kNone;
    return result.code == 0;
  };
  if (order == UnlinkOrder::kSenderFirst) {
    if (senderSide()) {
      receiverSide();
    }
  } else if (receiverSide()) {
    senderSide();
  }
  return result;
}

void DropNeighbours(const NodePtr& node) {
  for (const NodePtr& next : node->GetNextConnectListCopy()) {
    node->DisconnectFromNode(next, true);
  }
  for (const NodePtr& prev : node->GetPrevConnectListCopy()) {
    node->DisconnectFromNode(prev, false);
  }
}

}  // namespace vlink
