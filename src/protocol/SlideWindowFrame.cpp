#include "QueltLibrary/SlideWindowFrame.h"

#include <cstring>

namespace qlt {

ParsedFrame parseFrame(std::span<const uint8_t> frame) {
  ParsedFrame p;
  if (frame.empty()) return p;  // Malformed
  const uint8_t h = frame[0];
  p.header = h;
  p.sequence = static_cast<uint8_t>(h >> 4);
  if (h & 0x01) {
    p.controlType = static_cast<uint8_t>((h >> 1) & 7);
    switch (p.controlType) {
      case 0:
        if (frame.size() < kPollFrameLength) return p;  // Malformed: short poll
        p.kind = FrameKind::Poll;
        p.pollFirst = frame[1];
        p.pollNext = frame[2];
        return p;
      case 1:
        p.kind = FrameKind::Ack;
        return p;
      case 2:
        p.kind = FrameKind::Reject;
        return p;
      default:
        p.kind = FrameKind::OtherControl;
        return p;
    }
  }
  if (h & 0x02) {
    p.kind = FrameKind::Datagram;
    p.payload = frame.subspan(1);
    return p;
  }
  if (frame.size() < 2) return p;  // Malformed: a segment without payload
  p.kind = FrameKind::Segment;
  p.payload = frame.subspan(1);
  return p;
}

size_t buildSegment(std::span<uint8_t> out, uint8_t sequence, std::span<const uint8_t> payload) {
  const size_t length = 1 + payload.size();
  if (out.size() < length) return 0;
  out[0] = static_cast<uint8_t>((sequence & 3) << 4);
  if (!payload.empty()) std::memcpy(out.data() + 1, payload.data(), payload.size());
  return length;
}

size_t buildDatagram(std::span<uint8_t> out, std::span<const uint8_t> payload) {
  const size_t length = 1 + payload.size();
  if (out.size() < length) return 0;
  out[0] = 0x02;
  if (!payload.empty()) std::memcpy(out.data() + 1, payload.data(), payload.size());
  return length;
}

size_t buildPoll(std::span<uint8_t> out, uint8_t oldestUnacknowledged, uint8_t nextSend) {
  if (out.size() < kPollFrameLength) return 0;
  out[0] = 0x01;
  out[1] = static_cast<uint8_t>(oldestUnacknowledged & 3);
  out[2] = static_cast<uint8_t>(nextSend & 3);
  return kPollFrameLength;
}

std::string describeFrame(std::span<const uint8_t> frame, bool outgoing) {
  std::string line = outgoing ? "→ " : "← ";
  const ParsedFrame p = parseFrame(frame);
  const std::string size = std::to_string(frame.size()) + " B";
  switch (p.kind) {
    case FrameKind::Segment:
      line +=
          "seg seq=" + std::to_string(p.sequence) + " " + std::to_string(p.payload.size()) + " B";
      break;
    case FrameKind::Datagram:
      line += "dgram " + std::to_string(p.payload.size()) + " B";
      break;
    case FrameKind::Poll:
      line += "poll " + std::to_string(p.pollFirst) + ".." + std::to_string(p.pollNext);
      break;
    case FrameKind::Ack:
      line += "ack R=" + std::to_string(p.sequence);
      break;
    case FrameKind::Reject:
      line += "rej R=" + std::to_string(p.sequence);
      break;
    case FrameKind::OtherControl:
      line += "ctl type=" + std::to_string(p.controlType) + " " + size;
      break;
    case FrameKind::Malformed:
      line += "malformed " + size;
      break;
  }
  return line;
}

}  // namespace qlt
