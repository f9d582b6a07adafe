// kd_client: one connection of a local client on the control socket; the
// connection list, receiving and sending, and the login/logout sessions that
// link connections and profiles both ways.
#pragma once
#include <cstddef>
#include <cstdint>
#include <mxml.h>

#include "client/kd_notify.h"
#include "client/kd_outq.h"

struct kd_profile;
struct kd_msg;

struct kd_client {
    int32_t handle;          // csock handle
    int16_t broken;          // set once a receive or send found the peer gone
    int32_t api;             // API version of the last accepted login, 0 before
    kd_profile **profiles;   // in login order
    uint32_t nprofiles;
    kd_client *next;
    kd_client *prev;
    kd_outq outq;            // blocks waiting for the socket to take them
};

// Accept callback of the listener; ctx is the address of the client list head.
int kd_new_connection(int fd, void *ctx);
void kd_disconnect_client(kd_client *client);
void kd_trace_client(kd_client *client);
void client_request(int handle, void *ctx);
void client_closed(int handle, void *ctx);
kd_profile *find_client_profile(kd_client *client, const char *domain, uint32_t profile_id);
kd_profile *new_profile(uint32_t profile_id, const char *domain);
int client_send(kd_client *client, const char *buf, size_t count);
int send_response(kd_client *client, kd_msg *req, const void *object);
int send_request(kd_client *client, uint32_t cmd, const void *descriptor);

// Carries out one parsed request on its connection (login, logout, accounts;
// other commands are logged and not answered). The caller frees the request.
void kd_handle_request(kd_client *client, kd_msg *req);

