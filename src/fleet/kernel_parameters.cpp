#include "fleet/kernel_parameters.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "brefir/simpleconfig.h"
#include "brefir/sysctl.h"
#include "fleet/host_file.h"
#include "pnl/proc.h"

namespace fleet {
namespace {

using pnl_host::Host;

/// A number in the way the kernel prints it.
std::string Normal(const std::string& word) {
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(word.c_str(), &end, 0);  // bases as the kernel reads them
  return !word.empty() && *end == '\0' && errno == 0 ? std::to_string(number) : word;
}

bool Same(const std::string& a, const std::string& b) {
  return KernelText(a) == KernelText(b);
}

/// The message of sysctl(8) about the parameter when it loaded the file; the whole output when no
/// line names the parameter.
std::string SaidOf(const std::string& name, std::string complaint) {
  const std::string all = str::Replace(complaint, "\n", "; ");
  const std::string path = str::Replace(name, ".", "/");
  std::string said;
  while (!complaint.empty()) {
    const std::string line = str::GetWord(complaint, '\n');
    if (line.find(name) != std::string::npos || line.find(path) != std::string::npos)
      said = str::Append(said, line, "; ");
  }
  return said.empty() ? all : said;
}

void Report(const ParameterChange::Options& options, const char* what, const std::string& name,
            const std::string& message) {
  if (options.report)
    options.report(pnl_err::Error("sysctl", what, name).add_param("message", message));
}

}  // namespace

bool IsParameterName(const std::string& name) {
  constexpr const char* kLetters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-:@./";
  bool good = name.find_first_not_of(kLetters) == std::string::npos;
  bool joint = true;  // a part must begin here; "." and "/" are exchanged in the path
  for (const char c : name) {
    const bool dot = c == '.' || c == '/';
    good = good && !(joint && (dot || c == '-'));
    joint = dot;
  }
  return good && !joint;
}

std::string KernelText(std::string value) {
  std::string text;
  while (!value.empty()) text = str::Append(text, Normal(str::GetWord(value)), " ");
  return text;
}

std::optional<std::string> ParameterInFile(const std::string& text, const std::string& name) {
  std::optional<std::string> value;
  for (const utils::lines::Entry& entry : utils::lines::List(text, "", {"", "=", ""})) {
    if (entry.key == name) value = entry.value;
  }
  return value;
}

KernelValue ReadParameter(Host& host, const std::string& name) {
  const pnl_host::Outcome run = host.Run(WithSbin("sysctl -n " + pnl_proc::Escape(name)));
  if (run.code != 0) return {std::nullopt, Said(run)};
  // The kernel separates the numbers of a list by tabs.
  return {str::Replace(str::Trim(run.output), "\t", " "), ""};
}

ParameterChange::ParameterChange(Host host, const StringMap& values) : host_(std::move(host)) {
  const pnl_host::Content text = HostContent(host_, kSysctlConf);
  plan_.push_back({.node = host_.Name(),
                   .kind = StepKind::kFile,
                   .object = kSysctlConf,
                   .before = text,
                   .after = sysctl::Rewrite(text.value_or(""), values)});
  for (const auto& [name, value] : values) {
    parameters_.push_back({.name = name, .value = value, .before = ReadParameter(host_, name)});
    const std::optional<std::string>& has = parameters_.back().before.value;
    plan_.push_back({.node = host_.Name(),
                     .kind = StepKind::kValue,
                     .object = name,
                     .before = has,
                     .after = has && Same(value, *has) ? has : value});
  }
}

const std::vector<Parameter>& ParameterChange::Make(const Options& options) {
  const Step& file = plan_.front();
  if (Changes(file)) ReplaceText(host_, kSysctlConf, *file.after, file.before);
  if (Load(options) || options.keep) return parameters_;
  PutBack(options);
  if (!Changes(file)) return parameters_;
  if (file.before) {
    ReplaceText(host_, kSysctlConf, *file.before, file.after);
  } else {
    OnHostFile(host_, kSysctlConf, "remote_write", "removed",
               [&] { host_.Remove(kSysctlConf, *file.after); });
  }
  return parameters_;
}

bool ParameterChange::Load(const Options& options) {
  const pnl_host::Outcome load = host_.Run(WithSbin("sysctl -p"));  // the values are read back
  bool all = true;
  for (Parameter& parameter : parameters_) {
    parameter.now = ReadParameter(host_, parameter.name);
    parameter.taken = parameter.now.value && Same(parameter.value, *parameter.now.value);
    if (parameter.taken) continue;
    all = false;
    const std::string said = SaidOf(parameter.name, load.complaint);
    const std::string has = parameter.now.value
                                ? str::Append("it has '" + *parameter.now.value + "'", said, ": ")
                                : parameter.now.reason;
    Report(options, "not_taken", parameter.name,
           str::Format("%s: the kernel did not take %s = %s: %s; %s", host_.Name(), parameter.name,
                       parameter.value, has,
                       options.keep ? "/etc/sysctl.conf keeps it"
                                    : "/etc/sysctl.conf and the kernel are restored"));
  }
  return all;
}

void ParameterChange::PutBack(const Options& options) {
  for (Parameter& parameter : parameters_) {
    if (!parameter.before.value || parameter.now.value == parameter.before.value) continue;
    const std::string word = parameter.name + "=" + *parameter.before.value;
    const pnl_host::Outcome run = host_.Run(WithSbin("sysctl -w " + pnl_proc::Escape(word)));
    parameter.now = ReadParameter(host_, parameter.name);
    if (parameter.now.value == parameter.before.value) continue;
    Report(options, "not_back", parameter.name,
           host_.Name() + ": " + word + " could not be restored in the kernel: " + Said(run));
  }
}

}  // namespace fleet
