#include "thread_context.h"

namespace tarnsocket {
namespace {

thread_local bool t_worker = false;
thread_local int t_application_depth = 0;

}  // namespace

void EnterWorkerThread() {
  t_worker = true;
}

bool InLibraryContext() {
  return t_worker && t_application_depth == 0;
}

ApplicationCallScope::ApplicationCallScope() {
  ++t_application_depth;
}

ApplicationCallScope::~ApplicationCallScope() {
  --t_application_depth;
}

}  // namespace tarnsocket
