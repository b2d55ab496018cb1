#include "json_printer.h"

#include "json_writer.h"
#include "teskclient/information_elements.h"
#include "teskclient/mac_address.h"

namespace {

using teskclient::PoolSlice;

// A byte string as text when it is UTF-8, else as hex with the flag set.
void TextOrHex(JsonWriter* json, const char* key, const char* hex_flag,
               const std::vector<uint8_t>& bytes) {
  const bool text = IsValidUtf8(bytes.data(), bytes.size());
  json->Key(key);
  if (text) {
    json->String(std::string(bytes.begin(), bytes.end()));
  } else {
    json->Hex(bytes.data(), bytes.size());
  }
  json->Key(hex_flag);
  json->Bool(!text);
}

void Slice(JsonWriter* json, const char* key, const PoolSlice& slice) {
  json->Key(key);
  if (slice.valid) {
    json->Hex(slice.data, slice.size);
  } else {
    json->Null();
  }
}

void Info(JsonWriter* json, const WifiMeasurementInfo& info) {
  json->BeginObject();
  json->UintField("infoValue32_1", info.infoValue32_1);
  json->UintField("infoValue32_2", info.infoValue32_2);
  json->UintField("infoValue32_3", info.infoValue32_3);
  json->UintField("infoValue32_4", info.infoValue32_4);
  json->HexField("infoBlock", info.infoBlock, sizeof info.infoBlock);
  json->UintField("infoValue16_1", info.infoValue16_1);
  json->UintField("infoValue16_2", info.infoValue16_2);
  json->UintField("infoValue32_5", info.infoValue32_5);
  json->UintField("infoValue32_6", info.infoValue32_6);
  json->UintField("infoValue32_7", info.infoValue32_7);
  json->UintField("infoValue8_1", info.infoValue8_1);
  json->UintField("infoValue8_2", info.infoValue8_2);
  json->UintField("infoValue8_3", info.infoValue8_3);
  json->UintField("infoValue8_4", info.infoValue8_4);
  json->UintField("infoValue32_8", info.infoValue32_8);
  json->UintField("infoValue8_5", info.infoValue8_5);
  json->UintField("infoValue8_6", info.infoValue8_6);
  json->UintField("infoValue8_7", info.infoValue8_7);
  json->UintField("infoValue8_8", info.infoValue8_8);
  json->EndObject();
}

void RecordFields(JsonWriter* json, const WifiScanMeasurement& r) {
  json->UintField("bssidLo24", r.bssidLo24);
  json->UintField("bssidHi24", r.bssidHi24);
  json->UintField("value64", r.value64);
  json->UintField("value32_1", r.value32_1);
  json->UintField("value32_2", r.value32_2);
  json->UintField("value32_3", r.value32_3);
  json->UintField("value32_4", r.value32_4);
  json->UintField("value32_5", r.value32_5);
  json->UintField("value32_6", r.value32_6);
  json->UintField("value32_7", r.value32_7);
  json->UintField("value32_8", r.value32_8);
  json->UintField("value32_9", r.value32_9);
  json->UintField("value32_10", r.value32_10);
  json->UintField("value16_1", r.value16_1);
  json->UintField("value16_2", r.value16_2);
  json->UintField("firstInfoIndex", r.firstInfoIndex);
  json->UintField("infoCount", r.infoCount);
  json->UintField("bytesOffset", r.bytesOffset);
  json->UintField("bytesLength", r.bytesLength);
  json->UintField("elementAOffset", r.elementAOffset);
  json->UintField("elementALength", r.elementALength);
  json->UintField("elementBOffset", r.elementBOffset);
  json->UintField("elementBLength", r.elementBLength);
  json->UintField("beaconIesOffset", r.beaconIesOffset);
  json->UintField("beaconIesLength", r.beaconIesLength);
  json->UintField("firstMacIndex", r.firstMacIndex);
  json->UintField("macCount", r.macCount);
  json->UintField("value16_3", r.value16_3);
  json->UintField("value16_4", r.value16_4);
  json->UintField("ssidValid", r.ssidValid);
  json->UintField("ssidPresent", r.ssidPresent);
  json->UintField("ssidLength", r.ssidLength);
  json->UintField("value8_1", r.value8_1);
  json->UintField("value8_2", r.value8_2);
  json->UintField("value8_3", r.value8_3);
  json->UintField("value8_4", r.value8_4);
  json->UintField("value8_5", r.value8_5);
  json->UintField("value8_6", r.value8_6);
  json->UintField("value8_7", r.value8_7);
  json->UintField("value8_8", r.value8_8);
  json->UintField("value8_9", r.value8_9);
}

void IeFields(JsonWriter* json, const PoolSlice& ies) {
  const teskclient::IeSummary summary = teskclient::SummariseIes(ies.data, ies.size);
  json->Key("ies");
  json->BeginArray();
  for (const teskclient::InformationElement& ie : teskclient::ParseIes(ies.data, ies.size)) {
    json->BeginObject();
    json->UintField("id", ie.id);
    json->UintField("len", ie.length);
    json->HexField("data", ie.data, ie.length);
    json->EndObject();
  }
  json->EndArray();
  json->BoolField("iesTruncated", summary.truncated);
  json->Key("channel");
  if (summary.channel >= 0) {
    json->Int(summary.channel);
  } else {
    json->Null();
  }
  json->Key("security");
  if (summary.security.empty()) {
    json->Null();
  } else {
    json->String(summary.security);
  }
  json->Key("vendorOuis");
  json->BeginArray();
  for (const teskclient::Oui& oui : summary.vendor_ouis) json->String(teskclient::FormatOui(oui));
  json->EndArray();
}

void PrintLine(FILE* out, const JsonWriter& json) {
  fputs(json.text().c_str(), out);
  fputc('\n', out);
}

void PrintRecords(FILE* out, const teskclient::ScanRecords& results) {
  for (size_t i = 0; i < results.records.size(); ++i) {
    fputs(ScanRecordJson(results, i).c_str(), out);
    fputc('\n', out);
  }
}

void Counts(JsonWriter* json, const teskclient::ScanRecords& results) {
  json->UintField("records", results.records.size());
  json->UintField("infos", results.infos.size());
  json->UintField("poolBytes", results.pool.size());
  json->UintField("droppedBytes", results.dropped_bytes);
}

}  // namespace

std::string ScanRecordJson(const teskclient::ScanRecords& results, size_t index) {
  const WifiScanMeasurement& r = results.records[index];
  const teskclient::RecordParts parts = teskclient::PartsOf(results, r);
  JsonWriter json;
  json.BeginObject();
  json.StringField("type", "scan_record");
  json.UintField("index", index);
  json.StringField("bssid",
                   teskclient::FormatMacAddress(teskclient::FromWire(r.bssidLo24, r.bssidHi24)));
  TextOrHex(&json, "ssid", "ssidHex", teskclient::SsidOf(r));
  RecordFields(&json, r);
  json.HexField("ssidBytes", r.ssid, sizeof r.ssid);
  json.Key("infos");
  if (parts.infos_valid) {
    json.BeginArray();
    for (size_t i = 0; i < parts.info_count; ++i) Info(&json, parts.infos[i]);
    json.EndArray();
  } else {
    json.Null();
  }
  Slice(&json, "bytes", parts.bytes);
  Slice(&json, "elementA", parts.element_a);
  Slice(&json, "elementB", parts.element_b);
  Slice(&json, "beaconIes", parts.ies);
  IeFields(&json, parts.ies);
  json.Key("macs");
  if (parts.macs_valid) {
    json.BeginArray();
    for (size_t i = 0; i < parts.mac_count; ++i) {
      json.String(teskclient::FormatMacAddress(teskclient::FromWire(parts.macs[i])));
    }
    json.EndArray();
  } else {
    json.Null();
  }
  json.EndObject();
  return json.text();
}

void PrintDiscoveryJson(FILE* out, const teskclient::DiscoveryResults& results) {
  JsonWriter json;
  json.BeginObject();
  json.StringField("type", "discovery_response");
  json.UintField("response_value", results.header.response_value);
  json.UintField("response_word", results.header.response_word);
  json.IntField("scanStatus", results.header.scanStatus);
  Counts(&json, results);
  json.EndObject();
  PrintLine(out, json);
  PrintRecords(out, results);
}

void PrintRangingJson(FILE* out, const teskclient::RangingResults& results) {
  JsonWriter json;
  json.BeginObject();
  json.StringField("type", "ranging_response");
  json.UintField("scanStatus", results.scanStatus);
  Counts(&json, results);
  json.UintField("macs", results.macs.size());
  json.EndObject();
  PrintLine(out, json);
  PrintRecords(out, results);
}
