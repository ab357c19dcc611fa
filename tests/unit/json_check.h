// Says whether a reply is exactly one JSON value, as strictly as a browser's
// JSON.parse reads it: no raw control characters inside strings, only the
// escapes JSON knows, numbers without leading zeros or a lone dot, and nothing
// but white space after the value. Shared by the command tests and the
// dispatch fuzzer, so that both hold the replies to the same rule.
#pragma once

#include <cstddef>
#include <string_view>

namespace json_check {

class Reader {
  public:
    explicit Reader(std::string_view text) : text_(text) {}

    // npos when the text is one valid value, else the offset of the first
    // byte that cannot be read.
    size_t fault() {
        space();
        if (!value(0)) return at_;
        space();
        return at_ == text_.size() ? std::string_view::npos : at_;
    }

  private:
    // Deeper than any reply goes; keeps a hostile text off the stack.
    static constexpr int kMaxDepth = 256;

    int peek() const { return at_ < text_.size() ? static_cast<unsigned char>(text_[at_]) : -1; }
    bool take(char c) {
        if (peek() != static_cast<unsigned char>(c)) return false;
        at_++;
        return true;
    }
    void space() {
        while (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')
            at_++;
    }
    bool digits() {
        size_t start = at_;
        while (peek() >= '0' && peek() <= '9')
            at_++;
        return at_ > start;
    }
    bool hex() {
        int c = peek();
        bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
        if (ok) at_++;
        return ok;
    }
    bool word(std::string_view w) {
        if (text_.substr(at_, w.size()) != w) return false;
        at_ += w.size();
        return true;
    }

    bool string() {
        if (!take('"')) return false;
        for (;;) {
            int c = peek();
            if (c < 0x20) return false;  // the end of the text, or a raw control character
            at_++;
            if (c == '"') return true;
            if (c != '\\') continue;
            c = peek();
            at_++;
            if (c == 'u') {
                for (int i = 0; i < 4; i++)
                    if (!hex()) return false;
            } else if (c < 0 || std::string_view("\"\\/bfnrt").find(static_cast<char>(c)) ==
                                    std::string_view::npos) {
                at_--;
                return false;
            }
        }
    }

    bool number() {
        take('-');
        if (!take('0') && !digits()) return false;
        if (take('.') && !digits()) return false;
        if (take('e') || take('E')) {
            if (!take('+')) take('-');
            if (!digits()) return false;
        }
        return true;
    }

    bool array(int depth) {
        take('[');
        space();
        if (take(']')) return true;
        for (;;) {
            space();
            if (!value(depth + 1)) return false;
            space();
            if (take(']')) return true;
            if (!take(',')) return false;
        }
    }

    bool object(int depth) {
        take('{');
        space();
        if (take('}')) return true;
        for (;;) {
            space();
            if (!string()) return false;
            space();
            if (!take(':')) return false;
            space();
            if (!value(depth + 1)) return false;
            space();
            if (take('}')) return true;
            if (!take(',')) return false;
        }
    }

    bool value(int depth) {
        if (depth > kMaxDepth) return false;
        switch (peek()) {
            case '{':
                return object(depth);
            case '[':
                return array(depth);
            case '"':
                return string();
            case 't':
                return word("true");
            case 'f':
                return word("false");
            case 'n':
                return word("null");
            default:
                return number();
        }
    }

    std::string_view text_;
    size_t at_ = 0;
};

inline size_t jsonFault(std::string_view text) {
    return Reader(text).fault();
}
inline bool isJson(std::string_view text) {
    return jsonFault(text) == std::string_view::npos;
}

// What the pages take for JSON: a reply that opens a list, an object or a
// quoted text ("thanks\n", "true" and figures are read as they are).
inline bool claimsJson(std::string_view reply) {
    return !reply.empty() && (reply[0] == '[' || reply[0] == '{' || reply[0] == '"');
}

}  // namespace json_check
