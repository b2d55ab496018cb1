// One channel of a discovery scan's channel list.
#ifndef KY_LOC_FW_VELA_CHANNEL_INFO_H_
#define KY_LOC_FW_VELA_CHANNEL_INFO_H_

namespace ky_loc_fw {

class VELAChannelInfo {
 public:
  VELAChannelInfo();  // channel 0: matches nothing
  // value is an IEEE channel number (1-14 on 2.4 GHz, 32-177 on 5 GHz), or a
  // centre frequency in MHz when it is 2412 or more.
  explicit VELAChannelInfo(unsigned int value);
  VELAChannelInfo(const VELAChannelInfo& other);
  VELAChannelInfo& operator=(const VELAChannelInfo& other);
  ~VELAChannelInfo();  // NOLINT(performance-trivially-destructible): part of the interface

  unsigned int getValue() const { return value; }
  // The IEEE channel number the value stands for; 0 when it names none.
  unsigned int getChannel() const;
  // Centre frequency in MHz; 0 when the value names no channel.
  unsigned int getFrequencyMhz() const;

 private:
  unsigned int value;
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_CHANNEL_INFO_H_
