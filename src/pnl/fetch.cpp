#include "pnl/fetch.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/progress.h"
#include "pnl/str.h"

namespace pnl_rpc {
namespace {

pnl_log::Module log_module("fetch");

using pnl_time::Deadline;
using Clock = Deadline::Clock;

constexpr long kMaxRedirects = 10;
constexpr long kBufferSize = 128L << 10;
constexpr std::uint64_t kMaxOffset = std::numeric_limits<curl_off_t>::max();
constexpr std::chrono::milliseconds kReportInterval{100};

/// The reason of a failed download; FetchFile logs it and returns false.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Receives the body: counts it, checks the limits, writes it to a temporary file, reports
/// progress.
class Body {
 public:
  Body(std::string name, const std::string& path, const FetchOptions& options)
      : name_(std::move(name)),
        tmp_(path),
        limit_(options.limit != 0 ? options.limit : kFetchLimit),
        total_timeout_(options.total_timeout),
        over_(total_timeout_) {}

  void Append(std::string_view data) {
    if (data.size() > limit_ - size_)
      throw Failure("more than " + std::to_string(limit_) + " bytes");
    tmp_.Write(data);
    size_ += data.size();
  }

  /// Called repeatedly during the download.
  void Report(std::uint64_t total) {
    if (total_timeout_.count() != 0 && over_.Passed()) {
      throw Failure("not done within " + std::to_string(total_timeout_.count()) + " ms");
    }
    if (!next_report_.Passed()) return;
    next_report_ = Deadline(kReportInterval);
    pnl_progress::Report(name_, size_, total);
  }

  /// The body is complete: replaces `path`. Unlike Tmp::Replace, a failure keeps no temporary file:
  /// it can be fetched again.
  void MoveTo(const std::string& path) {
    pnl_progress::Report(name_, size_, size_);
    tmp_.CopyAttrs(path);
    tmp_.Close();
    pnl_file::Move(tmp_, path);
    tmp_.Release();
  }

  std::uint64_t size() const { return size_; }
  std::uint64_t limit() const { return limit_; }

 private:
  std::string name_;  // for progress reports
  pnl_file::Tmp tmp_;
  std::uint64_t limit_;
  std::chrono::milliseconds total_timeout_;
  std::uint64_t size_ = 0;
  Deadline over_;
  Deadline next_report_{Clock::duration::zero()};
};

/// Checks the rate of a body. libcurl's own speed limit reacts seconds too late.
class Pace {
 public:
  explicit Pace(std::chrono::milliseconds window) : window_(window) {}

  /// `size` bytes of the body have arrived.
  void Check(std::uint64_t size) {
    const auto now = Clock::now();
    if (size != size_) last_byte_ = now;
    if (size_ == 0) begin_ = now;  // other limits apply before the first byte
    size_ = size;
    if (now - last_byte_ > window_) Fail("no data");
    const std::chrono::duration<double> span = now - begin_;
    if (span < window_) return;
    if (static_cast<double>(size - begin_size_) < kFetchLeastRate * span.count()) {
      Fail("less than " + std::to_string(kFetchLeastRate) + " bytes a second");
    }
    begin_ = now;
    begin_size_ = size;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw Failure(what + " for " + std::to_string(window_.count()) + " ms");
  }

  std::chrono::milliseconds window_;
  std::uint64_t size_ = 0;
  Clock::time_point last_byte_ = Clock::now();
  Clock::time_point begin_ = Clock::now();  ///< of the current time span
  std::uint64_t begin_size_ = 0;
};

// --- Addresses

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Url = std::unique_ptr<CURLU, UrlDeleter>;

Url ParseUrl(const std::string& text) {
  if (text.find('\0') != std::string::npos) throw Failure("a NUL in the address");
  Url url(curl_url());
  // Without the flag that lets it guess, an address without a scheme is an error.
  const CURLUcode failed = curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0);
  if (failed != CURLUE_OK) throw Failure(curl_url_strerror(failed));
  return url;
}

std::string Part(const Url& url, CURLUPart part) {
  char* text = nullptr;
  const CURLUcode failed = curl_url_get(url.get(), part, &text, CURLU_URLDECODE);
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
  if (failed != CURLUE_OK) throw Failure(curl_url_strerror(failed));
  return text;
}

// --- Local files

/// An error of the source is a failed download, not an error of the target.
template <class Operation>
auto OnSource(Operation operation) {
  try {
    return operation();
  } catch (const pnl_err::Error& error) {
    throw Failure(error.what());
  }
}

/// `file:` addresses are read here: libcurl would wait for the writer of a FIFO, and take a read
/// error for the end of the file.
void CopyLocal(const std::string& source, Body& body) {
  const pnl_file::Fd file =
      OnSource([&] { return pnl_file::Open(source, O_RDONLY | O_NONBLOCK | O_NOCTTY); });
  struct stat stat {};
  if (fstat(file.Get(), &stat) != 0 || !S_ISREG(stat.st_mode)) throw Failure("not a regular file");
  const auto total = static_cast<std::uint64_t>(stat.st_size);

  std::string buffer(kBufferSize, '\0');
  while (const std::size_t size = OnSource([&] {
           return pnl_file::ReadSome(file.Get(), buffer.data(), buffer.size(), source);
         })) {
    body.Append(std::string_view(buffer).substr(0, size));
    body.Report(total);
  }
  if (body.size() < total) throw Failure("the file was cut while it was read");
}

// --- Transfers

struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};

/// One download by libcurl. No exception may pass through its C code: the callbacks store the first
/// one and end the transfer.
class Transfer {
 public:
  Transfer(const Url& url, Body& body, const FetchOptions& options)
      : body_(body), pace_(options.stall_timeout), easy_(curl_easy_init()) {
    if (!easy_) throw std::bad_alloc();
    Set(CURLOPT_CURLU, url.get());
    Set(CURLOPT_PROTOCOLS_STR, "http,https,ftp");
    // A redirect from https to another scheme would lose its protection against forged answers.
    const bool secure = Part(url, CURLUPART_SCHEME) == "https";
    Set(CURLOPT_REDIR_PROTOCOLS_STR, secure ? "https" : "http,https,ftp");
    Set(CURLOPT_FOLLOWLOCATION, 1L);
    Set(CURLOPT_MAXREDIRS, kMaxRedirects);
    Set(CURLOPT_FAILONERROR, 1L);
    Set(CURLOPT_USERAGENT, "libpnl");  // some servers refuse a client without a name
    Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options.connect_timeout.count()));
    Set(CURLOPT_NOSIGNAL, 1L);    // leaves the process's signal handlers alone
    Set(CURLOPT_QUICK_EXIT, 1L);  // does not wait for a name service that does not answer
    Set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(std::min(body.limit(), kMaxOffset)));
    Set(CURLOPT_BUFFERSIZE, kBufferSize);
    Set(CURLOPT_ERRORBUFFER, static_cast<char*>(reason_));
    Set(CURLOPT_WRITEFUNCTION, &OnData);
    Set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    Set(CURLOPT_XFERINFOFUNCTION, &OnProgress);
    Set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
    Set(CURLOPT_NOPROGRESS, 0L);
  }

  Transfer(const Transfer&) = delete;  // libcurl keeps a pointer to this object
  Transfer& operator=(const Transfer&) = delete;

  void Perform() {
    const CURLcode failed = curl_easy_perform(easy_.get());
    if (error_) std::rethrow_exception(error_);
    if (failed != CURLE_OK) throw Failure(*reason_ != '\0' ? reason_ : curl_easy_strerror(failed));
    CheckStatus();
  }

 private:
  template <class Value>
  void Set(CURLoption option, Value value) {
    const CURLcode failed = curl_easy_setopt(easy_.get(), option, value);
    if (failed != CURLE_OK) throw Failure(curl_easy_strerror(failed));
  }

  /// FAILONERROR fails only for 4xx and 5xx. Other codes are not a file either: a redirect without
  /// an address, no content, a partial content. 226 and 250 are codes of FTP.
  void CheckStatus() {
    constexpr long kWhole[] = {200, 203, 226, 250};
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    if (std::find(std::begin(kWhole), std::end(kWhole), status) == std::end(kWhole)) {
      throw Failure("status " + std::to_string(status));
    }
  }

  static std::size_t OnData(char* data, std::size_t, std::size_t size, void* self) noexcept {
    auto& transfer = *static_cast<Transfer*>(self);
    const bool ok = transfer.Guard([&] { transfer.body_.Append(std::string_view(data, size)); });
    return ok ? size : CURL_WRITEFUNC_ERROR;
  }

  /// Called about once a second or more often, even while no data comes.
  static int OnProgress(void* self, curl_off_t total, curl_off_t, curl_off_t, curl_off_t) noexcept {
    auto& transfer = *static_cast<Transfer*>(self);
    const bool ok = transfer.Guard([&] {
      transfer.pace_.Check(transfer.body_.size());
      transfer.body_.Report(static_cast<std::uint64_t>(std::max<curl_off_t>(total, 0)));
    });
    return ok ? 0 : 1;
  }

  template <class Step>
  bool Guard(Step step) noexcept {
    if (error_) return false;
    try {
      step();
      return true;
    } catch (...) {  // rethrown by Perform
      error_ = std::current_exception();
      return false;
    }
  }

  Body& body_;
  Pace pace_;
  std::exception_ptr error_;
  char reason_[CURL_ERROR_SIZE] = "";
  std::unique_ptr<CURL, EasyDeleter> easy_;
};

void InitLibrary() {
  // Never cleaned up: the last user is not known.
  static const CURLcode failed = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (failed != CURLE_OK) throw Failure(curl_easy_strerror(failed));
}

void Fetch(const std::string& address, const std::string& path, const FetchOptions& options) {
  InitLibrary();
  const Url url = ParseUrl(address);
  Body body(str::WithoutCredentials(address), path, options);
  if (Part(url, CURLUPART_SCHEME) == "file") {
    CopyLocal(Part(url, CURLUPART_PATH), body);
  } else {
    Transfer(url, body, options).Perform();
  }
  body.MoveTo(path);
}

}  // namespace

bool CanFetch(const std::string& url) {
  std::string rest = url;
  const std::string scheme = str::Lower(str::GetWord(rest, "://"));
  const bool remote = scheme == "http" || scheme == "https" || scheme == "ftp";
  if (remote) return !rest.empty() && !rest.starts_with('/');
  return scheme == "file" && rest.size() > 1 && rest.starts_with('/');
}

bool FetchFile(const std::string& url, const std::string& path, const FetchOptions& options) {
  PNL_ENTRY(log_module);
  try {
    Fetch(url, path, options);
    return true;
  } catch (const Failure& failure) {
    PNL_LOG(log_module, 3, "%s: %s", str::WithoutCredentials(url).c_str(), failure.what());
    return false;
  }
}

bool FetchFile(const std::string& url, const std::string& path, std::uint64_t limit) {
  return FetchFile(url, path, FetchOptions{.limit = limit});
}

}  // namespace pnl_rpc
