#include "thread_context.h"

namespace tarnsocket {
namespace {

thread_local bool t_worker = false;
thread_local int t_application_depth = 0;
thread_local unsigned t_call_depth = 0;

}  // namespace

void EnterWorkerThread() {
  t_worker = true;
}

bool InLibraryContext() {
  return t_worker && t_application_depth == 0;
}

unsigned CurrentCallDepth() {
  return t_call_depth;
}

ApplicationCallScope::ApplicationCallScope(unsigned depth) : outer_depth_(t_call_depth) {
  ++t_application_depth;
  t_call_depth = depth;
}

ApplicationCallScope::~ApplicationCallScope() {
  --t_application_depth;
  t_call_depth = outer_depth_;
}

}  // namespace tarnsocket
