#include "frame_reader.h"

#include <algorithm>
#include <cstring>

uint32_t FrameReader::LengthOf(const char* bytes) {
  uint32_t length = 0;
  std::memcpy(&length, bytes, sizeof length);
  return length;
}

void FrameReader::StartBody(uint32_t length, std::vector<Item>* out) {
  if (length == 0) {
    out->push_back({false, "empty message (length 0)"});
    m_state = State::kHeader;
    return;
  }
  if (length > kMaxMessage) {
    out->push_back({false, "message of " + std::to_string(length) + " bytes is larger than the limit of " +
                               std::to_string(kMaxMessage) + " bytes; skipped"});
    m_state = State::kResync;
    return;
  }
  m_length = length;
  m_body.clear();
  m_state = State::kBody;
}

void FrameReader::Feed(const char* data, size_t size, std::vector<Item>* out) {
  size_t pos = 0;
  while (pos < size) {
    switch (m_state) {
      case State::kHeader: {
        size_t take = std::min(size - pos, 4 - m_header.size());
        m_header.append(data + pos, take);
        pos += take;
        if (m_header.size() == 4) {
          uint32_t length = LengthOf(m_header.data());
          m_header.clear();
          StartBody(length, out);
        }
        break;
      }
      case State::kBody: {
        size_t take = std::min<size_t>(size - pos, m_length - m_body.size());
        m_body.append(data + pos, take);
        pos += take;
        if (m_body.size() == m_length) {
          out->push_back({true, std::move(m_body)});
          m_body.clear();
          m_state = State::kHeader;
        }
        break;
      }
      case State::kResync: {
        m_header += data[pos++];
        if (m_header.size() > 5) m_header.erase(0, 1);
        if (m_header.size() < 5 || m_header[4] != '{') break;
        uint32_t length = LengthOf(m_header.data());
        if (length == 0 || length > kMaxMessage) break;
        m_header.clear();
        StartBody(length, out);
        m_body = "{";
        if (m_length == 1) {
          out->push_back({true, std::move(m_body)});
          m_body.clear();
          m_state = State::kHeader;
        }
        break;
      }
    }
  }
}

std::string FrameMessage(const std::string& json) {
  uint32_t length = static_cast<uint32_t>(json.size());
  std::string frame(reinterpret_cast<const char*>(&length), sizeof length);
  return frame + json;
}
