// Flag files, empty: other programs of the appliance test for their existence.
#pragma once

inline constexpr char FAN_FAILED_FLAG[] = "/var/tmp/fan_failed_alert";
inline constexpr char HIGH_TEMP_FLAG[] = "/var/tmp/high_temp_alert";
inline constexpr char CRIT_TEMP_FLAG[] = "/var/tmp/crit_temp_alert";
