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

namespace {
unsigned u16(std::span<const uint8_t> f, size_t at) {
  return static_cast<unsigned>(f[at] | (f[at + 1] << 8));
}

// The extended window's frames (control types 3-6); "" for anything else.
std::string describeExtended(std::span<const uint8_t> f) {
  static const char* const kTerms[] = {"offer", "answer", "confirm", "decline"};
  const uint8_t h = f[0];
  if ((h & 0x0F) == 0x07 && (h >> 4) < 4) {
    std::string line = kTerms[h >> 4];
    if ((h >> 4) < 2 && f.size() >= 7)
      line += " v" + std::to_string(f[1]) + " seg=" + std::to_string(u16(f, 3)) +
              " win=" + std::to_string(u16(f, 5)) + ((f[2] & 1) ? " resume" : "");
    return line;
  }
  if (h == 0x09 && f.size() >= 3)
    return "xseg seq=" + std::to_string(u16(f, 1)) + " " + std::to_string(f.size() - 3) + " B";
  if ((h == 0x0B || h == 0x1B) && f.size() >= 6) {
    size_t held = 0;
    for (size_t i = 6; i < f.size(); ++i) held += static_cast<size_t>(__builtin_popcount(f[i]));
    return std::string(h == 0x1B ? "xack(poll " + std::to_string(f[5]) + ")" : "xack") +
           " next=" + std::to_string(u16(f, 1)) + " win=" + std::to_string(u16(f, 3)) +
           (held ? " +" + std::to_string(held) + " held" : "");
  }
  if (h == 0x0D && f.size() >= 4)
    return "xpoll " + std::to_string(f[1]) + " next=" + std::to_string(u16(f, 2));
  return {};
}
}  // namespace

bool isSegmentFrame(std::span<const uint8_t> frame) {
  if (frame.size() < 2) return false;
  return (frame[0] & 0x03) == 0 || (frame[0] == 0x09 && frame.size() > 3);
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
    case FrameKind::OtherControl: {
      const std::string extended = describeExtended(frame);
      line +=
          extended.empty() ? "ctl type=" + std::to_string(p.controlType) + " " + size : extended;
      break;
    }
    case FrameKind::Malformed:
      line += "malformed " + size;
      break;
  }
  return line;
}

}  // namespace qlt
