#include "Payload.h"

#include <string.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace sablectl {

bool Payload::Check(std::string& error) const {
    if (bytes.empty()) {
        error = "the payload is empty: a request carries at least one byte";
        return false;
    }
    if (bytes.size() > kMaxPayload) {
        error = "the payload is " + std::to_string(bytes.size()) +
                " bytes; a request carries at most " + std::to_string(kMaxPayload);
        return false;
    }
    return true;
}

bool Payload::FromText(const std::string& text, std::string& error) {
    bytes.assign(text.begin(), text.end());
    return Check(error);
}

bool Payload::FromHex(const std::string& hex, std::string& error) {
    bytes.clear();
    std::string digits;
    for (size_t i = 0; i < hex.size(); ++i) {
        char c = hex[i];
        if (c == '0' && i + 1 < hex.size() && (hex[i + 1] == 'x' || hex[i + 1] == 'X') &&
            digits.size() % 2 == 0) {
            ++i;  // 0x in front of a byte
            continue;
        }
        if (c == ' ' || c == ':' || c == '\t' || c == '\n') continue;
        if (!isxdigit(static_cast<unsigned char>(c))) {
            error = "bad hex: '" + std::string(1, c) + "' at offset " + std::to_string(i) +
                    " is not a hex digit";
            return false;
        }
        digits += c;
    }
    if (digits.size() % 2 != 0) {
        error = "bad hex: an odd number of digits (" + std::to_string(digits.size()) +
                "); every byte takes two";
        return false;
    }
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return Check(error);
}

bool Payload::FromFile(const std::string& path, std::string& error) {
    bytes.clear();
    if (path == "-" || path.empty()) {
        if (isatty(STDIN_FILENO)) {
            error = "no payload: give --data TEXT, --hex HEX or --file PATH, or pipe it on stdin";
            return false;
        }
        // Read one byte past the limit so that an over-long input is reported, not cut.
        uint8_t buf[4096];
        ssize_t n;
        while ((n = read(STDIN_FILENO, buf, sizeof(buf))) > 0 && bytes.size() <= kMaxPayload) {
            bytes.insert(bytes.end(), buf, buf + n);
        }
    } else {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            error = "cannot read " + path + ": " + strerror(errno);
            return false;
        }
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return Check(error);
}

bool IsText(const uint8_t* data, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        uint8_t c = data[i];
        if (c == '\n' || c == '\t' || c == '\r') continue;
        if (c < 0x20 || c >= 0x7f) return false;
    }
    return true;
}

std::string Hex(const uint8_t* data, size_t size) {
    std::string out;
    char b[3];
    for (size_t i = 0; i < size; ++i) {
        snprintf(b, sizeof(b), "%02x", data[i]);
        out += b;
    }
    return out;
}

std::string HexDump(const uint8_t* data, size_t size) {
    std::string out;
    char b[32];
    for (size_t off = 0; off < size; off += 16) {
        snprintf(b, sizeof(b), "%08zx ", off);
        out += b;
        std::string ascii;
        for (size_t i = off; i < off + 16; ++i) {
            if (i < size) {
                snprintf(b, sizeof(b), " %02x", data[i]);
                out += b;
                ascii += data[i] >= 0x20 && data[i] < 0x7f ? static_cast<char>(data[i]) : '.';
            } else {
                out += "   ";
            }
        }
        out += "  |" + ascii + "|\n";
    }
    return out;
}

std::string ErrorText(int code) {
    int e = code < 0 ? -code : code;
    const char* name = strerrorname_np(e);
    return std::to_string(code) + " " + (name != nullptr ? name : "?") + " (" + strerror(e) + ")";
}

std::string Json(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                if (c < 0x20) {
                    char b[8];
                    snprintf(b, sizeof(b), "\\u%04x", c);
                    out += b;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

}  // namespace sablectl
