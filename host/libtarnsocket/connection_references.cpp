// The reference tables of a connection: proxies of the peer's objects
// (counted here, released to the peer once), exports of ours (marshalled into
// frames, resolved from frames, pinned while a served call uses them).
#include <memory>
#include <utility>

#include <tesk/counted_object.h>

#include "connection.h"
#include "log.h"

namespace tarnsocket {

void Connection::RetainProxy(Proxy* proxy) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++proxy->refs;
}

void Connection::ReleaseProxy(Proxy* proxy) {
  const std::shared_ptr<Connection> self = proxy->connection;
  bool send = false;
  bool last_import = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--proxy->refs > 0) return;
    auto it = imports_.find(proxy->handle);
    if (it != imports_.end() && it->second == proxy) {
      imports_.erase(it);
      send = !closed_;
      last_import = side_ == Side::kClient && imports_.empty();
    }
  }
  if (send) SendRelease(proxy->handle, proxy->received);
  // A client's connection lives as long as it holds something from it.
  if (last_import) Close(nullptr);
  delete proxy;  // NOLINT(cppcoreguidelines-owning-memory): the import table owned it
}

bool Connection::Marshal(const Object& given, ObjectRef* ref) {
  *ref = ObjectRef{kRefNull, 0};
  const Object object = Unwrapped(given);
  if (IsNullObject(object)) return true;
  Proxy* proxy = AsProxy(object);
  if (proxy != nullptr && proxy->connection.get() == this) {
    *ref = ObjectRef{kRefReceiverExport, proxy->handle};
    return true;
  }
  uint32_t handle;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) {
      // The send will fail; a receipt counted now would never be given back
      // and would keep the entry, and our object, forever.
      *ref = ObjectRef{kRefSenderExport, 0};
      return true;
    }
    if (exports_.Find(object, &handle)) {
      ++exports_.Get(handle)->sent;
      *ref = ObjectRef{kRefSenderExport, handle};
      return true;
    }
  }
  // The library's own reference, taken outside the lock: the object may be
  // a proxy of another connection, whose lock must not nest inside ours.
  ObjectRetain(object);
  bool undo = false;
  bool full = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (exports_.Find(object, &handle)) {
      undo = true;  // another thread exported it meanwhile
      ++exports_.Get(handle)->sent;
    } else if (closed_) {
      undo = true;  // the send will fail anyway
      handle = 0;
    } else if (exports_.size() >= limits_.max_exports) {
      undo = full = true;
    } else {
      handle = exports_.Add(object);
      ++exports_.Get(handle)->sent;
      if (!reader_busy_) ArmLocked();
    }
  }
  if (undo) ObjectRelease(object);
  if (full) {
    LogRefusal(&logged_exports_, "objects refused: %u exported to it already", limits_.max_exports);
    return false;
  }
  *ref = ObjectRef{kRefSenderExport, handle};
  return true;
}

void Connection::Unmarshal(const ObjectRef& ref) {
  if (ref.kind != kRefSenderExport) return;
  Object object;
  bool release = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExportTable::Entry* entry = exports_.Get(ref.handle);
    if (entry == nullptr || entry->sent == 0) return;
    --entry->sent;
    release = exports_.RemoveIfUnused(ref.handle, &object);
  }
  if (release) ReleaseOwned({object});
}

void Connection::Unpin(uint32_t handle) {
  Object object;
  bool release = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExportTable::Entry* entry = exports_.Get(handle);
    if (entry == nullptr) return;
    --entry->pinned;
    release = exports_.RemoveIfUnused(handle, &object);
  }
  if (release) ReleaseOwned({object});
}

Object Connection::PassBackLocked(uint32_t handle) {
  ExportTable::Entry* entry = exports_.Get(handle);
  ++entry->pinned;
  return HandOutCounted(PassedBackInvoke, std::unique_ptr<PassedBack>(new PassedBack{
                                              shared_from_this(), handle, entry->object, {1}}));
}

void Connection::ReleasePassedBack(const PassedBack& passed) {
  Unpin(passed.handle);
}

bool Connection::ResolveInvoke(InvokeFrame* frame) {
  const char* bad = nullptr;
  bool target_pinned = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExportTable::Entry* target = exports_.Get(frame->header.handle);
    if (target == nullptr || target->sent == 0) {
      bad = "call of an unknown handle";
    } else {
      ++target->pinned;
      target_pinned = true;
      frame->target = target->object;
      frame->target_handle = frame->header.handle;
      for (unsigned i = 0; i < frame->meta.in_objs && bad == nullptr; ++i) {
        const ObjectRef& ref = frame->meta.objects[i];
        if (ref.kind == kRefNull) {
          frame->in_objects[i] = kNullObject;
        } else if (ref.kind == kRefReceiverExport) {
          ExportTable::Entry* entry = exports_.Get(ref.handle);
          if (entry == nullptr || entry->sent == 0) {
            bad = "unknown handle passed back";
            break;
          }
          frame->in_objects[i] = PassBackLocked(ref.handle);
        } else {
          Proxy*& proxy = imports_[ref.handle];
          // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the import table owns it
          if (proxy == nullptr) proxy = new Proxy{shared_from_this(), ref.handle, 0, 0};
          ++proxy->refs;
          ++proxy->received;
          frame->in_objects[i] = ProxyObject(proxy);
        }
        frame->resolved = i + 1;
      }
    }
  }
  if (bad == nullptr) return true;
  DropInputs(frame);
  if (target_pinned) Unpin(frame->target_handle);
  CloseWithLog("malformed frame: %s", bad);
  return false;
}

void Connection::DropInputs(InvokeFrame* frame) {
  for (unsigned i = 0; i < frame->resolved; ++i) ObjectRelease(frame->in_objects[i]);
  frame->resolved = 0;
}

bool Connection::HandleRelease(const FrameHeader& header) {
  Object object;
  bool known = false;
  bool release = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExportTable::Entry* entry = exports_.Get(header.handle);
    if (entry != nullptr && entry->sent >= header.code) {
      known = true;
      entry->sent -= header.code;
      release = exports_.RemoveIfUnused(header.handle, &object);
    }
  }
  if (!known) {
    CloseWithLog("malformed frame: release of references never given");
    return false;
  }
  if (release) ReleaseOwned({object});
  return true;
}

}  // namespace tarnsocket
