#include "pnl/err.h"

#include <string.h>  // NOLINT: strerrordesc_np is GNU's, not the standard's

#include <algorithm>

namespace pnl_err {

struct Error::State {
  std::string type;
  std::string object;
  std::string value;
  std::vector<Param> params;
  int code = 0;
  std::string text;

  void Describe() {
    text = type;
    for (const std::string* part : {&object, &value}) {
      if (!part->empty()) text += " " + *part;
    }
    const char* separator = " (";
    for (const Param& param : params) {
      text += separator + param.name + "=" + param.value;
      separator = ", ";
    }
    if (!params.empty()) text += ")";
  }
};

Error::Error(std::string_view type) : Error(type, "", "") {}

Error::Error(std::string_view type, std::string_view object) : Error(type, object, "") {}

Error::Error(std::string_view type, std::string_view object, std::string_view value) {
  auto state = std::make_shared<State>();
  state->type = type;
  state->object = object;
  state->value = value;
  state->Describe();
  state_ = std::move(state);
}

Error::Error(const Error&) noexcept = default;
Error& Error::operator=(const Error&) noexcept = default;
Error::~Error() = default;

const char* Error::what() const noexcept {
  return state_->text.c_str();
}
const std::string& Error::type() const noexcept {
  return state_->type;
}
const std::string& Error::object() const noexcept {
  return state_->object;
}
const std::string& Error::value() const noexcept {
  return state_->value;
}
const std::vector<Error::Param>& Error::params() const noexcept {
  return state_->params;
}
int Error::code() const noexcept {
  return state_->code;
}

std::string Error::param(std::string_view name) const {
  const auto found = std::find_if(params().begin(), params().end(),
                                  [&](const Param& param) { return param.name == name; });
  return found == params().end() ? "" : found->value;
}

Error& Error::add_param(std::string_view name, std::string_view value, unsigned access_mask) {
  // Copies share the state: it must never be changed in place.
  auto state = std::make_shared<State>(*state_);
  state->params.push_back({std::string(name), std::string(value), access_mask});
  state->Describe();
  state_ = std::move(state);
  return *this;
}

Error& Error::add_errno(int errno_value) {
  add_param("errno", std::to_string(errno_value)).add_param("errmsg", Message(errno_value));
  auto state = std::make_shared<State>(*state_);
  state->code = errno_value;
  state_ = std::move(state);
  return *this;
}

Missed::Missed(std::string_view object, std::string_view value) : Error(kMissed, object, value) {}
Missed::Missed(const Missed&) noexcept = default;
Missed& Missed::operator=(const Missed&) noexcept = default;
Missed::~Missed() = default;

Missed& Missed::add_param(std::string_view name, std::string_view value, unsigned access_mask) {
  Error::add_param(name, value, access_mask);
  return *this;
}

Access::Access(std::string_view object, std::string_view value) : Error("access", object, value) {}
Access::Access(const Access&) noexcept = default;
Access& Access::operator=(const Access&) noexcept = default;
Access::~Access() = default;

Access& Access::add_param(std::string_view name, std::string_view value, unsigned access_mask) {
  Error::add_param(name, value, access_mask);
  return *this;
}

Error System(std::string_view operation, std::string_view path, int errno_value) {
  return Error(kFile, operation, path).add_errno(errno_value);
}

std::string Message(int errno_value) {
  const char* description = strerrordesc_np(errno_value);
  return description != nullptr ? description : "Unknown error";
}

}  // namespace pnl_err
