// kd_command: one handler per client command, chosen by kd_handle_request
// (kd_client.h) from the request's command code.
#pragma once

struct kd_client;
struct kd_msg;

// Login and logout: the session steps that link a connection and a profile.
void kd_cmd_login(kd_client *client, kd_msg *req);
void kd_cmd_logout(kd_client *client, kd_msg *req);
