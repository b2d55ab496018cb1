// The objects of this process that one peer may call, by handle. The peer
// learns a handle when a frame carrying it is sent (`sent` counts those) and
// gives receipts back with release frames; an entry lives while the peer may
// still name it or a served call still uses it (`pinned`).
#ifndef TARNSOCKET_EXPORT_TABLE_H_
#define TARNSOCKET_EXPORT_TABLE_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <unordered_map>
#include <vector>

#include <tesk/object.h>

namespace tarnsocket {

class ExportTable {
 public:
  struct Entry {
    Object object;
    uint32_t sent;
    uint32_t pinned;
    bool live;
  };

  // The handle of object, keyed by {invoke, context}, or false.
  bool Find(const Object& object, uint32_t* handle) const;
  // A new entry with nothing sent or pinned; the first handle is 0.
  uint32_t Add(const Object& object);
  // The live entry of handle, or null.
  Entry* Get(uint32_t handle);
  // Drops the entry if nothing is sent or pinned any more; then its object
  // is returned for the one release that the library owes it.
  bool RemoveIfUnused(uint32_t handle, Object* object);
  // The peer is gone: forgets every receipt, drops the unpinned entries and
  // appends their objects to released.
  void ForgetPeer(std::vector<Object>* released);
  bool empty() const { return live_ == 0; }
  size_t size() const { return live_; }

 private:
  struct Key {
    ObjectInvoke invoke;
    void* context;
    bool operator==(const Key& other) const {
      return invoke == other.invoke && context == other.context;
    }
  };
  struct KeyHash {
    size_t operator()(const Key& key) const {
      return std::hash<void*>()(reinterpret_cast<void*>(key.invoke)) * 31 +
             std::hash<void*>()(key.context);
    }
  };

  std::vector<Entry> entries_;
  std::vector<uint32_t> free_;
  std::unordered_map<Key, uint32_t, KeyHash> by_object_;
  size_t live_ = 0;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_EXPORT_TABLE_H_
