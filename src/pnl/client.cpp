#include "pnl/client.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace pnl_client {
namespace {

pnl_log::Module log_module("client");

constexpr int kTimeout = 120;  // seconds

// --- Modules of this process

struct Registered {
  const Module* owner;
  std::string name;
  Module::Handler handler;
};

std::mutex registry_mutex;

/// Guarded by registry_mutex.
std::vector<Registered>& Registry() {
  static auto* const registry = new std::vector<Registered>();
  return *registry;
}

/// Returns a copy, so that no lock is held while the handler works; empty when there is none.
Module::Handler Find(const std::string& name) {
  const std::lock_guard guard(registry_mutex);
  const auto found = std::find_if(Registry().rbegin(), Registry().rend(),
                                  [&](const Registered& entry) { return entry.name == name; });
  return found == Registry().rend() ? nullptr : found->handler;
}

// --- The control utility

std::string CommandLine(const std::string& module, std::string query) {
  std::string function = str::GetWord(query, '&');
  str::GetWord(function, '=');
  std::string command = std::string(kUtility) + " -m " + pnl_proc::Escape(module) + " -o xml " +
                        pnl_proc::Escape(function);
  while (!query.empty()) command += " " + pnl_proc::Escape(str::GetWord(query, '&'));
  return command;
}

pnl_xml::Xml Parse(const std::string& module, const std::string& text) try {
  return pnl_xml::Xml(text);
} catch (const pnl_err::Error& error) {
  throw pnl_err::Error("client", "reply", module).add_param("reason", error.what());
}

pnl_xml::Xml RunUtility(const std::string& module, const std::string& query) {
  if (!pnl_file::Exists(kUtility)) throw pnl_err::Missed("module", module);
  pnl_proc::Execute utility(CommandLine(module, query), pnl_proc::kNoInput);
  utility.SetTimeout(kTimeout);
  const std::string text = utility.Str();
  return Parse(module, text);
}

}  // namespace

// --- Errors in replies

void ThrowError(const pnl_xml::Xml& reply) {
  const pnl_xml::XmlNode node = reply.GetNode("/doc/error");
  if (!node) return;
  pnl_err::Error error(node.GetProp("type"), node.GetProp("object"));
  for (const pnl_xml::XmlNode& param : reply.GetNodes("/doc/error/param")) {
    error.add_param(param.GetProp("name"), param.Str(), pnl_err::kAllLevels);
  }
  throw error;
}

pnl_xml::Xml ErrorReply(const pnl_err::Error& error) {
  pnl_xml::Xml reply;
  pnl_xml::XmlNode node = reply.GetRoot().AppendChild("error");
  node.SetProp("type", error.type());
  node.SetProp("object", error.object());
  const auto add = [&](const std::string& name, const std::string& value) {
    node.AppendChild("param", value).SetProp("name", name);
  };
  if (!error.value().empty()) add("value", error.value());
  for (const pnl_err::Error::Param& param : error.params()) add(param.name, param.value);
  return reply;
}

// --- Client, Local

Client::~Client() = default;

Local::Local(std::string module, std::string client)
    : module_(std::move(module)), client_(std::move(client)) {}

Local::~Local() = default;

pnl_xml::Xml Local::Query(const std::string& query) {
  PNL_TRACE(log_module, "%s asks %s: '%s'", client_.c_str(), module_.c_str(), query.c_str());
  const Module::Handler handler = Find(module_);
  pnl_xml::Xml reply = handler ? handler(query) : RunUtility(module_, query);
  ThrowError(reply);
  return reply;
}

// --- Module

Module::Module(std::string name, Handler handler) {
  const std::lock_guard guard(registry_mutex);
  Registry().push_back({this, std::move(name), std::move(handler)});
}

Module::~Module() {
  const std::lock_guard guard(registry_mutex);
  std::erase_if(Registry(), [this](const Registered& entry) { return entry.owner == this; });
}

}  // namespace pnl_client
