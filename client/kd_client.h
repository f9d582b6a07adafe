// kd_client: connections of local clients on the control socket.
// (Being written; this is the part the main loop needs.)
#pragma once

struct kd_client;

// Accept callback of the listener; ctx is the address of the client list head.
int kd_new_connection(int fd, void *ctx);
void kd_disconnect_client(kd_client *client);
kd_client *kd_client_next(kd_client *client);
