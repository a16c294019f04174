#pragma once

#include <libssh/libssh.h>

#include <array>
#include <cstdint>
#include <ios>
#include <memory>
#include <string>

#include "lab.h"

/// The bare floor under work on nodes: libssh, as somebody would use it who needs no more.
namespace bench {

struct SessionFree {
  void operator()(ssh_session session) const {
    ssh_disconnect(session);
    ssh_free(session);
  }
};
using Session = std::unique_ptr<ssh_session_struct, SessionFree>;

struct ChannelFree {
  void operator()(ssh_channel channel) const {
    ssh_channel_close(channel);
    ssh_channel_free(channel);
  }
};
using Channel = std::unique_ptr<ssh_channel_struct, ChannelFree>;

inline Session BareConnect(const std::string& host) {
  Session session(ssh_new());
  const int on = 1;
  const bool off = false;
  // The cheapest ciphers where the processor has AES; without TCP_NODELAY every command waits.
  const char* ciphers = "aes256-gcm@openssh.com,aes128-gcm@openssh.com";
  ssh_options_set(session.get(), SSH_OPTIONS_PROCESS_CONFIG, &off);
  ssh_options_set(session.get(), SSH_OPTIONS_HOST, host.c_str());
  ssh_options_set(session.get(), SSH_OPTIONS_USER, "root");
  ssh_options_set(session.get(), SSH_OPTIONS_KNOWNHOSTS, Environment("LAB_KNOWN_HOSTS").c_str());
  ssh_options_set(session.get(), SSH_OPTIONS_NODELAY, &on);
  ssh_options_set(session.get(), SSH_OPTIONS_CIPHERS_C_S, ciphers);
  ssh_options_set(session.get(), SSH_OPTIONS_CIPHERS_S_C, ciphers);
  Must(ssh_connect(session.get()) == SSH_OK, "ssh_connect");
  Must(ssh_session_is_known_server(session.get()) == SSH_KNOWN_HOSTS_OK, "host key");
  ssh_key key = nullptr;
  Must(ssh_pki_import_privkey_file(Environment("LAB_KEY").c_str(), nullptr, nullptr, nullptr,
                                   &key) == SSH_OK,
       "key file");
  const int login = ssh_userauth_publickey(session.get(), nullptr, key);
  ssh_key_free(key);
  Must(login == SSH_AUTH_SUCCESS, "login");
  return session;
}

inline Channel BareStart(const Session& session, const std::string& command) {
  Channel channel(ssh_channel_new(session.get()));
  Must(ssh_channel_open_session(channel.get()) == SSH_OK, "channel");
  Must(ssh_channel_request_exec(channel.get(), command.c_str()) == SSH_OK, "exec");
  return channel;
}

/// Feeds `take` with all output; the exit code.
template <class Take>
int BareDrain(const Channel& channel, const Take& take) {
  ssh_channel_send_eof(channel.get());
  std::array<char, 65536> block;
  int n = 0;
  while ((n = ssh_channel_read(channel.get(), block.data(), block.size(), 0)) > 0)
    take(block.data(), static_cast<std::streamsize>(n));
  return ssh_channel_get_exit_status(channel.get());
}

inline int BareRun(const Session& session, const std::string& command,
                   const std::string& input = "") {
  const Channel channel = BareStart(session, command);
  if (!input.empty())
    ssh_channel_write(channel.get(), input.data(), static_cast<std::uint32_t>(input.size()));
  return BareDrain(channel, [](const char*, std::streamsize) {});
}

}  // namespace bench
