#include "scenario_parser.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "scenario_ap.h"
#include "scenario_repeat.h"
#include "scenario_tokens.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

constexpr uint32_t kMaxLatencyMs = 600000;

struct FaultName {
  const char* name;
  FaultKind kind;
};
constexpr FaultName kFaultNames[] = {
    {"refuse", FaultKind::kRefuse},       {"drop", FaultKind::kDrop},
    {"null", FaultKind::kNull},           {"wrong-type", FaultKind::kWrongType},
    {"odd-type", FaultKind::kOddType},    {"odd-measurement", FaultKind::kOddMeasurement},
    {"duplicate", FaultKind::kDuplicate}, {"status", FaultKind::kStatus},
};

class Parser {
 public:
  Parser(Scenario* out, std::string* error) : out_(out), errors_(error) {}

  bool Parse(const std::string& text) {
    *out_ = Scenario();
    if (text.size() > kMaxScenarioBytes) {
      return errors_.Fail("scenario longer than " + std::to_string(kMaxScenarioBytes) + " bytes");
    }
    return ParseLines(text, true);
  }

 private:
  // builtin_allowed: false inside the built-in text, which cannot name itself.
  bool ParseLines(const std::string& text, bool builtin_allowed) {
    size_t pos = 0;
    int line_number = 0;
    while (pos < text.size()) {
      size_t end = text.find('\n', pos);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(pos, end - pos);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      errors_.SetLine(++line_number);
      if (!ParseLine(Tokenize(line), builtin_allowed)) return false;
      pos = end + 1;
    }
    return true;
  }

  bool ParseLine(const std::vector<std::string>& tokens, bool builtin_allowed) {
    if (tokens.empty()) return true;
    const std::string& directive = tokens[0];
    if (directive == "latency") return ParseLatency(tokens);
    if (directive == "ap") return ParseApLine(tokens);
    if (directive == "range") return ParseRange(tokens);
    if (directive == "fault") return ParseFault(tokens);
    if (directive == "repeat") return ParseRepeat(tokens);
    if (directive == "builtin" && builtin_allowed) return ParseBuiltin(tokens);
    return errors_.Fail("unknown directive '" + directive + "'");
  }

  bool ParseLatency(const std::vector<std::string>& tokens) {
    long long ms;
    if (tokens.size() != 2 || !ParseInt(tokens[1], 0, kMaxLatencyMs, &ms)) {
      return errors_.Fail("latency takes one number of milliseconds, 0 to " +
                          std::to_string(kMaxLatencyMs));
    }
    out_->latencyMs = static_cast<uint32_t>(ms);
    return true;
  }

  // Adds ap unless its BSSID is taken or the elements grow too large.
  bool AddAp(ScenarioAp ap) {
    ie_bytes_ += ap.ies.size();
    if (ie_bytes_ > kMaxTotalIeBytes) {
      return errors_.Fail("elements of all access points longer than " +
                          std::to_string(kMaxTotalIeBytes) + " bytes");
    }
    const auto inserted = lines_by_bssid_.emplace(ap.bssid, ap.line);
    if (!inserted.second) {
      return errors_.Fail("access point " + FormatMac(ap.bssid) + " already defined on line " +
                          std::to_string(inserted.first->second));
    }
    out_->aps.push_back(std::move(ap));
    return true;
  }

  bool ParseApLine(const std::vector<std::string>& tokens) {
    if (out_->aps.size() >= kMaxAccessPoints) {
      return errors_.Fail("more than " + std::to_string(kMaxAccessPoints) + " access points");
    }
    ScenarioAp ap;
    return ParseAp(tokens, &ap, &errors_) && AddAp(std::move(ap));
  }

  // Copies of the access points so far, in turn, until there are count.
  bool ParseRepeat(const std::vector<std::string>& tokens) {
    long long count;
    if (tokens.size() != 2 || !ParseInt(tokens[1], 0, kMaxAccessPoints, &count)) {
      return errors_.Fail("repeat takes the number of access points wanted, at most " +
                          std::to_string(kMaxAccessPoints));
    }
    const size_t originals = out_->aps.size();
    if (originals == 0) return errors_.Fail("repeat needs access points before it");
    const size_t wanted = static_cast<size_t>(count);
    out_->aps.reserve(wanted);
    for (size_t index = originals; index < wanted; ++index) {
      ScenarioAp copy = DeriveCopy(out_->aps[(index - originals) % originals], index,
                                   (index - originals) / originals + 1);
      copy.line = errors_.line();
      if (!AddAp(std::move(copy))) return false;
    }
    return true;
  }

  // The built-in neighbourhood's lines, as if written here.
  bool ParseBuiltin(const std::vector<std::string>& tokens) {
    if (tokens.size() != 1) return errors_.Fail("builtin takes nothing");
    const int line = errors_.line();
    std::string what;
    Errors outer = errors_;
    errors_ = Errors(&what);
    const bool ok = ParseLines(DefaultScenarioText(), false);
    errors_ = outer;
    errors_.SetLine(line);
    return ok || errors_.Fail("builtin: " + what);
  }

  bool ParseRangeKey(const std::string& token, ScenarioRange* range) {
    std::string key;
    std::string value;
    bool has_value;
    SplitKey(token, &key, &value, &has_value);
    long long number;
    if (!has_value && key == "plain") {
      range->plain = true;
    } else if (has_value && key == "distance") {
      if (!ParseInt(value, 1, 1000000, &number)) {
        return errors_.Fail("distance must be 1 to 1000000 mm");
      }
      range->distanceMm = static_cast<uint32_t>(number);
    } else if (has_value && key == "spread") {
      if (!ParseInt(value, 1, 1000000, &number))
        return errors_.Fail("spread must be 1 to 1000000 mm");
      range->spreadMm = static_cast<uint32_t>(number);
    } else if (has_value && key == "rssi") {
      if (!ParseInt(value, -127, -1, &number)) return errors_.Fail("rssi must be -127 to -1 dBm");
      range->rssiDbm = static_cast<int>(number);
    } else {
      return errors_.Fail("unknown range key '" + token + "'");
    }
    return true;
  }

  bool ParseRange(const std::vector<std::string>& tokens) {
    if (out_->ranges.size() >= kMaxRanges) {
      return errors_.Fail("more than " + std::to_string(kMaxRanges) + " range lines");
    }
    ScenarioRange range;
    if (tokens.size() < 2 || !ParseMac(tokens[1], &range.mac)) {
      return errors_.Fail("range needs a MAC address first");
    }
    for (size_t i = 2; i < tokens.size(); ++i) {
      if (!ParseRangeKey(tokens[i], &range)) return false;
    }
    for (const ScenarioRange& other : out_->ranges) {
      if (other.mac == range.mac) {
        return errors_.Fail("range for " + FormatMac(range.mac) + " given twice");
      }
    }
    out_->ranges.push_back(range);
    return true;
  }

  bool ParseFault(const std::vector<std::string>& tokens) {
    if (tokens.size() == 2 && tokens[1] == "create") {
      out_->refuseCreate = true;
      return true;
    }
    if (out_->faults.size() >= kMaxFaults) {
      return errors_.Fail("more than " + std::to_string(kMaxFaults) + " faults");
    }
    if (tokens.size() < 2) return errors_.Fail("fault needs a kind");
    ScenarioFault fault;
    const FaultName* known = nullptr;
    for (const FaultName& f : kFaultNames) {
      if (tokens[1] == f.name) known = &f;
    }
    if (known == nullptr) return errors_.Fail("unknown fault '" + tokens[1] + "'");
    fault.kind = known->kind;
    const bool status = fault.kind == FaultKind::kStatus;
    if (tokens.size() != (status ? 4u : 3u)) {
      return errors_.Fail(status ? "fault status takes request ids and a status"
                                 : "fault " + tokens[1] + " takes request ids");
    }
    if (!ParseIds(tokens[2], &fault.ids)) {
      return errors_.Fail("bad request ids '" + tokens[2] + "' (*, N, N-M, comma-separated)");
    }
    long long value = 0;
    if (status && !ParseInt(tokens[3], INT32_MIN, INT32_MAX, &value)) {
      return errors_.Fail("bad status '" + tokens[3] + "'");
    }
    fault.status = static_cast<int32_t>(value);
    out_->faults.push_back(std::move(fault));
    return true;
  }

  Scenario* out_;
  Errors errors_;
  std::unordered_map<Mac48, int> lines_by_bssid_;
  size_t ie_bytes_ = 0;
};

}  // namespace

bool ParseScenario(const std::string& text, Scenario* out, std::string* error) {
  return Parser(out, error).Parse(text);
}

bool LoadScenarioFile(const char* path, Scenario* out, std::string* error) {
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) {
    const int err = errno;
    *error = std::string(path) + ": cannot open: " + std::to_string(err) + " (" +
             std::strerror(err) + ")";  // NOLINT(concurrency-mt-unsafe): a fixed text
    return false;
  }
  std::string text;
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0) {
    text.append(buffer, n);
    if (text.size() > kMaxScenarioBytes) break;
  }
  const bool read_error = std::ferror(file) != 0;
  std::fclose(file);
  if (read_error) {
    *error = std::string(path) + ": read error";
    return false;
  }
  std::string what;
  if (!ParseScenario(text, out, &what)) {
    *error = std::string(path) + ": " + what;
    return false;
  }
  return true;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
