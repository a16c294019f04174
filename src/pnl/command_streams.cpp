#include "pnl/command_streams.h"

#include <algorithm>
#include <locale>
#include <new>
#include <span>
#include <utility>

#include "pnl/proc.h"
#include "pnl/str.h"

namespace pnl_command {

namespace {

constexpr int kErrorLevel = 4;
constexpr std::size_t kLongestLine = 4096;
constexpr std::size_t kMost = std::size_t{1} << 20;
constexpr std::size_t kEnd = 4096;

}  // namespace

// --- Standard error

void ErrorText::Add(std::string_view data) noexcept {
  try {
    Log(data);
    end_ += data.substr(data.size() - std::min(data.size(), kEnd + 1));
    end_.erase(0, end_.size() - std::min(end_.size(), kEnd + 1));
  } catch (const std::bad_alloc&) {
    end_.clear();
  }
}

void ErrorText::Log(std::string_view data) {
  if (!module_.Enabled(kErrorLevel) || logged_ > kMost) return;
  logged_ += data.size();
  if (logged_ > kMost) data = "... and more, which is left out\n";
  while (!data.empty()) {
    const std::size_t end = data.find('\n');
    const std::size_t room = kLongestLine - line_.size();
    const std::size_t taken = std::min({end, room, data.size()});
    line_ += data.substr(0, taken);
    data.remove_prefix(taken == end ? taken + 1 : taken);
    if (taken == end || taken == room) Flush();
  }
}

void ErrorText::Flush() {
  const std::string line = str::WithoutCredentials(std::exchange(line_, {}));
  if (!line.empty()) PNL_LOG(module_, kErrorLevel, "[%s] %s", name_.c_str(), line.c_str());
}

std::string ErrorText::End() const {
  if (end_.size() <= kEnd) return end_;
  const std::size_t line = end_.find('\n') + 1;  // 0: no line end, keep all of it
  return end_.substr(line == 0 || line == end_.size() ? 1 : line);
}

// --- Input

std::string_view Streams::InBuffer::Unsent() const {
  if (!large_.empty()) return large_;
  return {pbase(), static_cast<std::size_t>(pptr() - pbase())};
}

void Streams::InBuffer::Sent(std::size_t bytes) {
  if (!large_.empty()) return large_.remove_prefix(bytes);
  char* const rest = pbase() + bytes;
  const auto left = static_cast<int>(pptr() - rest);
  if (left == 0) return Clear();
  setp(rest, epptr());
  pbump(left);
}

bool Streams::InBuffer::Send(std::string_view large) {
  large_ = large;
  bool sent = false;
  try {
    sent = streams_.Send();
  } catch (...) {
    streams_.untold_ = std::current_exception();
  }
  large_ = {};
  return sent;
}

std::streambuf::int_type Streams::InBuffer::overflow(int_type c) {
  if (sync() != 0) return traits_type::eof();
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  return sputc(traits_type::to_char_type(c));
}

std::streamsize Streams::InBuffer::xsputn(const char* data, std::streamsize size) {
  const std::string_view block(data, static_cast<std::size_t>(size));
  if (block.size() < streams_.block_) return std::streambuf::xsputn(data, size);
  return sync() == 0 && Send(block) ? size : 0;
}

/// False when the command no longer takes input.
bool Streams::Send() {
  if (Unsent().empty()) return TakesInput();
  Collect(pnl_proc::kMaxOutput);
  PumpUntil([this] { return !TakesInput() || (Unsent().empty() && Flushed()) || Stuck(); });
  return Unsent().empty() && !in_closed_;
}

void Streams::ShutIn() {
  in_closed_ = true;
  in_buffer_.Shut();
  in_.setstate(std::ios::badbit);
}

// --- Output

std::streambuf::int_type Streams::OutBuffer::underflow() {
  setg(nullptr, nullptr, nullptr);
  kept_ = std::exchange(streams_.kept_, {});
  std::span<char> block(kept_);
  char* const own = streams_.out_block_.get();
  if (kept_.empty()) block = {own, streams_.Read(own, streams_.block_)};
  setg(block.data(), block.data(), block.data() + block.size());
  return block.empty() ? traits_type::eof() : traits_type::to_int_type(block.front());
}

std::streamsize Streams::OutBuffer::xsgetn(char* to, std::streamsize size) {
  const auto large = static_cast<std::streamsize>(streams_.block_) / 2;
  std::streamsize got =
      std::streambuf::xsgetn(to, std::min<std::streamsize>(size, egptr() - gptr()));
  while (size - got >= large && streams_.kept_.empty()) {
    const std::size_t read = streams_.Read(to + got, static_cast<std::size_t>(size - got));
    if (read == 0) return got;
    got += static_cast<std::streamsize>(read);
  }
  return got + std::streambuf::xsgetn(to + got, size - got);
}

std::string Streams::OutBuffer::TakeRest() {
  std::string rest(gptr(), egptr());
  setg(nullptr, nullptr, nullptr);
  return rest;
}

std::size_t Streams::Read(char* to, std::size_t size) {
  Check();
  if (dropped_) ThrowDropped();
  keeping_ = false;
  return Receive(to, size);
}

/// From now on at most `limit` bytes of output are kept, including those already kept.
void Streams::Collect(std::size_t limit) {
  if (!dropped_) limit_ = limit;  // otherwise keep the limit that was exceeded
  Keep({});
  TakeHeld();
  keeping_ = true;
}

void Streams::Keep(std::string_view output) noexcept {
  try {
    if (kept_.size() + output.size() > limit_) dropped_ = true;
    if (!dropped_) kept_ += output;
  } catch (const std::bad_alloc&) {
    dropped_ = true;
  }
  if (dropped_) kept_ = {};
}

// --- What the caller asks for

Streams::Streams(pnl_log::Module& module, std::size_t block)
    : error_(module), limit_(pnl_proc::kMaxOutput), block_(block) {
  // A failure below the stream is not the end of the data: the reader gets the exception.
  out_.exceptions(std::ios::badbit);
  // The command reads the numbers that the caller writes: no locale.
  in_.imbue(std::locale::classic());
  out_.imbue(std::locale::classic());
}

void Streams::Give(std::function<void(std::string_view)>& sink, std::string_view data) noexcept {
  try {
    if (sink && !data.empty()) sink(data);
  } catch (...) {
    sink = nullptr;
    untold_ = std::current_exception();
  }
}

void Streams::ThrowUntold() {
  if (untold_) std::rethrow_exception(std::exchange(untold_, nullptr));
}

/// Throws the error of an earlier call.
void Streams::Check() {
  ThrowUntold();
  ThrowIfLost();
}

std::ostream& Streams::In() {
  Check();
  return in_;
}

void Streams::CloseIn() {
  if (in_closed_) return;
  in_buffer_.pubsync();
  Check();
  ShutIn();
  CloseInput();
}

std::string Streams::Str(std::size_t limit) {
  CloseIn();
  Collect(limit);
  PumpUntil([this] { return OutEnded() || dropped_; });
  if (dropped_) ThrowDropped();
  Wait();
  return TakeKept();
}

std::string Streams::Said() {
  Result();
  if (dropped_) ThrowDropped();
  return TakeKept();
}

int Streams::Result() {
  CloseIn();
  if (!waited_) Collect(std::max(kept_.size(), pnl_proc::kMaxUnasked));
  Wait();
  return ExitCode();
}

std::string Streams::TakeKept() {
  return out_buffer_.TakeRest() + std::exchange(kept_, {});
}

void Streams::Wait() {
  if (!waited_) WaitEnd();
  waited_ = true;
}

}  // namespace pnl_command
