#include "ky_loc_fw/vela_channel_info.h"

namespace ky_loc_fw {

namespace {

constexpr unsigned int kFirstFrequency = 2412;

unsigned int ChannelToFrequency(unsigned int channel) {
  if (channel >= 1 && channel <= 13) return 2407 + 5 * channel;
  if (channel == 14) return 2484;
  if (channel >= 32 && channel <= 177) return 5000 + 5 * channel;
  return 0;
}

unsigned int FrequencyToChannel(unsigned int mhz) {
  if (mhz == 2484) return 14;
  if (mhz >= 2412 && mhz <= 2472 && (mhz - 2407) % 5 == 0) return (mhz - 2407) / 5;
  if (mhz >= 5160 && mhz <= 5885 && mhz % 5 == 0) return (mhz - 5000) / 5;
  return 0;
}

}  // namespace

VELAChannelInfo::VELAChannelInfo() : value(0) {}

VELAChannelInfo::VELAChannelInfo(unsigned int channelOrFrequency) : value(channelOrFrequency) {}

VELAChannelInfo::VELAChannelInfo(const VELAChannelInfo& other) = default;

VELAChannelInfo& VELAChannelInfo::operator=(const VELAChannelInfo& other) = default;

VELAChannelInfo::~VELAChannelInfo() = default;

unsigned int VELAChannelInfo::getChannel() const {
  if (value >= kFirstFrequency) return FrequencyToChannel(value);
  return ChannelToFrequency(value) != 0 ? value : 0;
}

unsigned int VELAChannelInfo::getFrequencyMhz() const {
  if (value >= kFirstFrequency) return FrequencyToChannel(value) != 0 ? value : 0;
  return ChannelToFrequency(value);
}

}  // namespace ky_loc_fw
