#include "ky_loc_fw/vela_client.h"

namespace ky_loc_fw {

VELAClientListener::~VELAClientListener() = default;

VELAClient::VELAClient() = default;

VELAClient::~VELAClient() = default;

}  // namespace ky_loc_fw
