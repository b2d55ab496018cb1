#include "json_writer.h"

#include <cinttypes>
#include <cstdio>

void JsonWriter::BeforeValue() {
  if (after_key_) {
    after_key_ = false;
    return;
  }
  if (!first_.empty()) {
    if (!first_.back()) text_ += ',';
    first_.back() = false;
  }
}

void JsonWriter::BeginObject() {
  BeforeValue();
  text_ += '{';
  first_.push_back(true);
}

void JsonWriter::EndObject() {
  text_ += '}';
  first_.pop_back();
}

void JsonWriter::BeginArray() {
  BeforeValue();
  text_ += '[';
  first_.push_back(true);
}

void JsonWriter::EndArray() {
  text_ += ']';
  first_.pop_back();
}

void JsonWriter::Key(const char* key) {
  BeforeValue();
  text_ += EscapeJsonString(key);
  text_ += ':';
  after_key_ = true;
}

void JsonWriter::String(const std::string& text) {
  BeforeValue();
  text_ += EscapeJsonString(text);
}

void JsonWriter::Uint(uint64_t value) {
  BeforeValue();
  char digits[24];
  snprintf(digits, sizeof digits, "%" PRIu64, value);
  text_ += digits;
}

void JsonWriter::Int(int64_t value) {
  BeforeValue();
  char digits[24];
  snprintf(digits, sizeof digits, "%" PRId64, value);
  text_ += digits;
}

void JsonWriter::Bool(bool value) {
  BeforeValue();
  text_ += value ? "true" : "false";
}

void JsonWriter::Null() {
  BeforeValue();
  text_ += "null";
}

void JsonWriter::Hex(const uint8_t* data, size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  BeforeValue();
  text_ += '"';
  for (size_t i = 0; i < size; ++i) {
    text_ += kDigits[data[i] >> 4];
    text_ += kDigits[data[i] & 0xF];
  }
  text_ += '"';
}

bool IsValidUtf8(const uint8_t* data, size_t size) {
  size_t i = 0;
  while (i < size) {
    const uint8_t lead = data[i];
    size_t extra;
    uint32_t code;
    uint32_t min;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      extra = 1, code = lead & 0x1Fu, min = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, code = lead & 0x0Fu, min = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, code = lead & 0x07u, min = 0x10000;
    } else {
      return false;
    }
    if (size - i - 1 < extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      const uint8_t next = data[i + k];
      if ((next & 0xC0) != 0x80) return false;
      code = code << 6 | (next & 0x3Fu);
    }
    // Overlong forms, UTF-16 surrogates and values past U+10FFFF are not UTF-8.
    if (code < min || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return false;
    i += extra + 1;
  }
  return true;
}

std::string EscapeJsonString(const std::string& utf8) {
  std::string out = "\"";
  for (const char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (byte < 0x20 || byte == 0x7F) {
          char escaped[8];
          snprintf(escaped, sizeof escaped, "\\u%04x", byte);
          out += escaped;
        } else {
          out += c;
        }
    }
  }
  out += '"';
  return out;
}
