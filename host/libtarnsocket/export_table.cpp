#include "export_table.h"

namespace tarnsocket {

bool ExportTable::Find(const Object& object, uint32_t* handle) const {
  auto it = by_object_.find(Key{object.invoke, object.context});
  if (it == by_object_.end()) return false;
  *handle = it->second;
  return true;
}

uint32_t ExportTable::Add(const Object& object) {
  uint32_t handle;
  if (!free_.empty()) {
    handle = free_.back();
    free_.pop_back();
  } else {
    handle = static_cast<uint32_t>(entries_.size());
    entries_.emplace_back();
  }
  entries_[handle] = Entry{object, 0, 0, true};
  by_object_[Key{object.invoke, object.context}] = handle;
  ++live_;
  return handle;
}

ExportTable::Entry* ExportTable::Get(uint32_t handle) {
  if (handle >= entries_.size() || !entries_[handle].live) return nullptr;
  return &entries_[handle];
}

bool ExportTable::RemoveIfUnused(uint32_t handle, Object* object) {
  Entry* entry = Get(handle);
  if (entry == nullptr || entry->sent != 0 || entry->pinned != 0) return false;
  *object = entry->object;
  auto it = by_object_.find(Key{entry->object.invoke, entry->object.context});
  if (it != by_object_.end() && it->second == handle) by_object_.erase(it);
  entry->live = false;
  free_.push_back(handle);
  --live_;
  return true;
}

void ExportTable::ForgetPeer(std::vector<Object>* released) {
  for (uint32_t handle = 0; handle < entries_.size(); ++handle) {
    if (!entries_[handle].live) continue;
    entries_[handle].sent = 0;
    Object object;
    if (RemoveIfUnused(handle, &object)) released->push_back(object);
  }
}

}  // namespace tarnsocket
