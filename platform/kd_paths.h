// Fixed names and paths of the gateway, in one place. Tests never relocate
// them: they run the programs inside private mount namespaces instead.
#pragma once

inline constexpr char KD_PROGRAM_NAME[]    = "kelpd";
inline constexpr char KD_RUN_DIR[]         = "/var/run";
inline constexpr char KD_PID_FILE[]        = "kelpd.pid";
inline constexpr char KD_CTL_SOCKET[]      = "/var/tmp/me_kelpd_daemon.ctl";
inline constexpr char KD_DUMP_FILE[]       = "/var/tmp/kelpd.log";
inline constexpr char KD_CONFIGD_SOCKET[]  = "/var/rpc/configd";
inline constexpr char KD_CONFIGD_STATEDIR[] = "/var/lib/configd";
inline constexpr char KD_DEV_NULL[]        = "/dev/null";
