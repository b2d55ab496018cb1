#include "benchmarks/support/neighbourhood_text.h"

namespace bench {

std::string NeighbourhoodText(size_t count) {
  // The built-in lines set a latency of their own: ours comes after them.
  std::string text = "builtin\nlatency 0\n";
  if (count > 21) text += "repeat " + std::to_string(count) + "\n";
  return text;
}

}  // namespace bench
