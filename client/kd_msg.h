// kd_msg: the client protocol's codec. Parses one request into a kd_msg and
// builds answers and daemon messages into NUL-terminated, zero-padded blocks
// whose length is the buffer capacity (32, 64, 128, ...).
#pragma once
#include <cstddef>
#include <cstdint>
#include <mxml.h>

struct kd_profile;

enum kd_cmd : uint32_t {
    KD_CMD_UNKNOWN = 0,
    KD_CMD_LOGIN = 1,
    KD_CMD_LOGOUT = 2,
    KD_CMD_BODY = 5,
    KD_CMD_ACCOUNTS = 6,
    KD_CMD_ENCLOSURE = 7,
    KD_CMD_OK = 8,
    KD_CMD_ERROR = 9,
    KD_CMD_OVERVIEW = 10,
    KD_CMD_STATUS = 11,
    KD_CMD_IMAGE = 12,
};

enum kd_error : uint32_t {
    KD_NO_ERROR = 0,
    KD_UNKOWN_COMMAND = 1,
    KD_MISSING_VERSION = 2,
    KD_MISSING_URL = 3,
    KD_MISSING_POLL_FREQ = 4,
    KD_NO_MEMORY = 5,
    KD_MISSING_UID = 6,
    KD_VERSION_NOT_SUPPORTED = 7,
    KD_ALREADY_LOGGED_IN = 8,
    KD_NOT_LOGGED_IN = 9,
    KD_ALREADY_REGISTERED = 10,
    KD_ACCOUNT_NOT_FOUND = 11,
    KD_UID_NOT_FOUND = 12,
    KD_MISSING_DOMAIN = 13,
    KD_DOMAIN_NOT_FOUND = 14,
    KD_MISSING_PROFILE = 15,
    KD_PROFILE_NOT_FOUND = 16,
    KD_MISSING_FEEDID = 17,
    KD_FEED_NOT_FOUND = 18,
    KD_NO_CONFIG = 19,
    KD_NO_INTERNET = 20,
};

struct kd_msg {
    uint32_t cmd;        // kd_cmd
    char *domain;        // owned, freed with the record
    uint32_t profile_id;
    uint32_t feed_id;
    uint32_t uid;
    uint32_t version;
    uint32_t error;      // kd_error
};

// Subject of an overview message.
struct kd_overview_desc {
    mxml_node_t *subscription; // the profile's "item" element
    kd_profile *profile;
    const char *domain;
};

// Parses the first request of `count` received bytes (not NUL-terminated,
// count > 0) into a zero-filled record; a malformed request sets msg->error
// (the domain copy stays owned by the record). Returns msg->error.
int kd_msg_parse(kd_msg *msg, const char *buf, size_t count);
// object: kd_profile* for login/accounts/status, kd_item* for body/enclosure/image.
// The builders need *buf == null on entry. On success (1) *size is the block
// length to send: the text, its NUL and zero padding. On failure (0) *buf may
// still hold a partial buffer, which the caller frees with kd_free.
// A status answer without error sets the profile's was_online; item texts
// lose their tabs in place.
int kd_msg_response(char **buf, uint32_t *size, const kd_msg *req, int api, const void *object);
int kd_msg_request(char **buf, uint32_t *size, uint32_t cmd, int api, const kd_overview_desc *desc);
// "9:KD_NOT_LOGGED_IN", "overview\t", "42": err2str and uint2str share one
// static buffer, so use each result before the next call.
const char *err2str(uint32_t err);
const char *cmd2str(uint32_t cmd);
const char *uint2str(uint32_t value);
// Appends text (null appends nothing), doubling *capacity until two spare
// bytes remain behind it; 0 when the buffer cannot grow (it is kept) or would
// pass KD_MSG_MAX_BLOCK.
int msg_append(char **buf, uint32_t *capacity, uint32_t *used, const char *text);
