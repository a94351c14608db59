// Request payloads from the command line, and how bytes, codes and strings are shown.
#ifndef SABLECTL_PAYLOAD_H
#define SABLECTL_PAYLOAD_H

#include <cstdint>
#include <string>
#include <vector>

namespace sablectl {

// The library's limit for one request or response.
constexpr size_t kMaxPayload = 4000;

class Payload {
  public:
    // From --data TEXT, --hex HEX (pairs of hex digits; spaces, ':' and a leading 0x allowed) or
    // --file PATH ("-" or none of the three: standard input). Empty, too long or unreadable
    // input gives false with a message a person can act on in `error`.
    bool FromText(const std::string& text, std::string& error);
    bool FromHex(const std::string& hex, std::string& error);
    bool FromFile(const std::string& path, std::string& error);

    std::vector<uint8_t>& Bytes() { return bytes; }

  private:
    bool Check(std::string& error) const;
    std::vector<uint8_t> bytes;
};

// Printable text (with tabs and newlines) is shown as it is, anything else as a hex dump.
bool IsText(const uint8_t* data, size_t size);
std::string HexDump(const uint8_t* data, size_t size);
std::string Hex(const uint8_t* data, size_t size);
// A negative errno as "-110 ETIMEDOUT (Connection timed out)".
std::string ErrorText(int code);
// A JSON string literal.
std::string Json(const std::string& s);

}  // namespace sablectl

#endif
