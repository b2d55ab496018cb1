// A small JSON encoder: builds one document in a string, with commas and
// escaping handled here so that printers only name keys and values.
#ifndef TESK_TOOLS_TESKCTL_JSON_WRITER_H_
#define TESK_TOOLS_TESKCTL_JSON_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class JsonWriter {
 public:
  void BeginObject();
  void EndObject();
  void BeginArray();
  void EndArray();
  // Inside an object: the key of the next value.
  void Key(const char* key);

  // text must be valid UTF-8 (see IsValidUtf8); it is escaped here.
  void String(const std::string& text);
  void Uint(uint64_t value);
  void Int(int64_t value);
  void Bool(bool value);
  void Null();
  // Bytes as lowercase hex digits in a string.
  void Hex(const uint8_t* data, size_t size);

  // Key and value in one call.
  void UintField(const char* key, uint64_t value) {
    Key(key);
    Uint(value);
  }
  void IntField(const char* key, int64_t value) {
    Key(key);
    Int(value);
  }
  void BoolField(const char* key, bool value) {
    Key(key);
    Bool(value);
  }
  void StringField(const char* key, const std::string& text) {
    Key(key);
    String(text);
  }
  void HexField(const char* key, const uint8_t* data, size_t size) {
    Key(key);
    Hex(data, size);
  }

  const std::string& text() const { return text_; }

 private:
  void BeforeValue();

  std::string text_;
  std::vector<bool> first_;  // per open container: nothing written yet
  bool after_key_ = false;
};

bool IsValidUtf8(const uint8_t* data, size_t size);
std::string EscapeJsonString(const std::string& utf8);

#endif  // TESK_TOOLS_TESKCTL_JSON_WRITER_H_
