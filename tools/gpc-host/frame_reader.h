// The framing of the browser's native messaging, read side: each message is a 32-bit length in
// the machine's byte order, then that many bytes of UTF-8 JSON.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class FrameReader {
 public:
  static constexpr uint32_t kMaxMessage = 64u * 1024 * 1024;

  struct Item {
    bool ok = false;      // a whole message in `text`; else a framing error described in `text`
    std::string text;
  };

  // Takes the next bytes of the input and appends every message completed by them, and every
  // framing error met, to `out`, in input order.
  //
  // A length of 0 is an error. A length above kMaxMessage is refused and the reader looks for the
  // next frame: a length of at most kMaxMessage followed by "{". JSON text never holds the
  // bytes 0-4 a length's top byte has then, so the skipped message cannot fake a frame.
  void Feed(const char* data, size_t size, std::vector<Item>* out);
  // True when the input stopped inside a frame (at end of input, the last frame was cut short).
  bool InsideFrame() const {
    return m_state == State::kBody || (m_state == State::kHeader && !m_header.empty());
  }

 private:
  enum class State { kHeader, kBody, kResync };
  static uint32_t LengthOf(const char* bytes);
  void StartBody(uint32_t length, std::vector<Item>* out);

  State m_state = State::kHeader;
  std::string m_header;  // the bytes of a length read so far; in kResync the last five bytes seen
  std::string m_body;
  uint32_t m_length = 0;
};

// One framed message as bytes to write: the length, then `json`.
std::string FrameMessage(const std::string& json);
