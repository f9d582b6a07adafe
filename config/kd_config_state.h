// kd_config_state: the configd session's state, owned by config/. Other
// modules read it through kd_config_state() and kd_config_received()
// (kd_config.h); only config/ and its tests write it.
#pragma once
#include <cstdint>

extern int32_t g_configstate;        // KD_CONFIG_NONE .. KD_CONFIG_CLOSING
// Sets the domains received (KD_RECEIVED_* bits) as if their documents had
// arrived, or none (tests).
void kd_config_set_received(uint32_t bits);
