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
    state_ = State::kHeader;
    return;
  }
  if (length > kMaxMessage) {
    out->push_back({false, "message of " + std::to_string(length) + " bytes is larger than the limit of " +
                               std::to_string(kMaxMessage) + " bytes; skipped"});
    state_ = State::kResync;
    return;
  }
  length_ = length;
  body_.clear();
  state_ = State::kBody;
}

void FrameReader::Feed(const char* data, size_t size, std::vector<Item>* out) {
  size_t pos = 0;
  while (pos < size) {
    switch (state_) {
      case State::kHeader: {
        size_t take = std::min(size - pos, 4 - header_.size());
        header_.append(data + pos, take);
        pos += take;
        if (header_.size() == 4) {
          uint32_t length = LengthOf(header_.data());
          header_.clear();
          StartBody(length, out);
        }
        break;
      }
      case State::kBody: {
        size_t take = std::min<size_t>(size - pos, length_ - body_.size());
        body_.append(data + pos, take);
        pos += take;
        if (body_.size() == length_) {
          out->push_back({true, std::move(body_)});
          body_.clear();
          state_ = State::kHeader;
        }
        break;
      }
      case State::kResync: {
        header_ += data[pos++];
        if (header_.size() > 5) header_.erase(0, 1);
        if (header_.size() < 5 || header_[4] != '{') break;
        uint32_t length = LengthOf(header_.data());
        if (length == 0 || length > kMaxMessage) break;
        header_.clear();
        StartBody(length, out);
        body_ = "{";
        if (length_ == 1) {
          out->push_back({true, std::move(body_)});
          body_.clear();
          state_ = State::kHeader;
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
