#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "pnl/log.h"

/// The parts that local commands and commands on nodes share; for the sources of this directory
/// only.
namespace pnl_command {

/// The standard error of a command. It is logged in whole lines, very long ones in pieces. Only the
/// first kMost bytes are logged, so that no node can fill this host's disk. The end is kept in
/// memory.
class ErrorText {
 public:
  explicit ErrorText(pnl_log::Module& module) : module_(module) {}
  /// The name that begins each logged line, to distinguish the commands in the log.
  void SetName(std::string name) { name_ = std::move(name); }

  /// When memory runs out, text is lost, but nothing is thrown: the caller may be foreign code.
  void Add(std::string_view data) noexcept;
  void Flush();  ///< logs a last line that has no line end
  std::string End() const;

 private:
  void Log(std::string_view data);

  pnl_log::Module& module_;
  std::string name_;
  std::string line_;
  std::size_t logged_ = 0;  // bytes
  std::string end_;         // with one byte more before it
};

/// The streams of one running command. This class holds the input that is not yet sent and the
/// output that is not yet read. The derived class moves the bytes.
class Streams {
 public:
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  std::ostream& In();
  std::istream& Out() { return out_; }
  void CloseIn();
  std::string Str(std::size_t limit);
  std::string Said();
  int Result();
  std::string Complaint() const { return error_.End(); }

 protected:
  /// `block` is the size of the buffers in bytes. Larger blocks of the caller are not copied.
  Streams(pnl_log::Module& module, std::size_t block);
  virtual ~Streams() = default;

  /// Moves bytes in every direction and sends the unsent input until `done` returns true. While
  /// `keeping_` is set, output goes to Keep; otherwise only as much is read as Receive needs.
  virtual void PumpUntil(const std::function<bool()>& done) = 0;
  /// Reads one to `size` bytes of standard output; 0 at its end.
  virtual std::size_t Receive(char* to, std::size_t size) = 0;
  virtual void CloseInput() = 0;
  virtual void WaitEnd() = 0;        ///< and takes all output up to then
  virtual int ExitCode() const = 0;  ///< after WaitEnd
  /// Abandons the command's output and throws.
  [[noreturn]] virtual void ThrowDropped() = 0;
  virtual void ThrowIfLost() {}
  virtual void TakeHeld() {}  ///< passes output that is buffered in a library to Keep
  virtual bool Flushed() const { return true; }  ///< all sent data has left this process
  /// The command has ended, and no process that it started reads the input.
  virtual bool Stuck() const = 0;

  std::string_view Unsent() const { return in_buffer_.Unsent(); }
  void Sent(std::size_t bytes) { in_buffer_.Sent(bytes); }
  void ShutIn();
  bool TakesInput() const { return !in_closed_ && !closed_; }
  bool OutEnded() const { return out_ended_ || closed_; }
  bool HasKept() { return !kept_.empty() || out_buffer_.in_avail() > 0; }
  /// When memory runs out, the output counts as dropped: nothing may be thrown through foreign
  /// code.
  void Keep(std::string_view output) noexcept;
  std::string TakeKept();
  bool Dropped() const { return dropped_; }

  /// Calls `sink`, if there is one. What it throws is kept for ThrowUntold.
  void Give(std::function<void(std::string_view)>& sink, std::string_view data) noexcept;
  void ThrowUntold();

  ErrorText error_;
  std::size_t limit_;       // bytes of output that are kept
  bool keeping_ = false;    // new output is kept
  bool in_closed_ = false;  // by this side
  bool out_ended_ = false;
  bool waited_ = false;  // the end was waited for
  bool closed_ = false;  // all streams: by the other side, or because the command was abandoned

 private:
  // The unsent input is the put area itself, or the large block that the caller is writing.
  class InBuffer : public std::streambuf {
   public:
    explicit InBuffer(Streams& streams) : streams_(streams) { Clear(); }
    std::string_view Unsent() const;
    void Sent(std::size_t bytes);
    void Shut() {
      setp(nullptr, nullptr);
      large_ = {};
    }

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* data, std::streamsize size) override;
    int sync() override { return Send({}) ? 0 : -1; }

   private:
    bool Send(std::string_view large);
    void Clear() { setp(streams_.in_block_.get(), streams_.in_block_.get() + streams_.block_); }

    Streams& streams_;
    std::string_view large_;
  };

  // A large block is read directly into the caller's memory.
  class OutBuffer : public std::streambuf {
   public:
    explicit OutBuffer(Streams& streams) : streams_(streams) {}
    std::string TakeRest();

   protected:
    int_type underflow() override;
    std::streamsize xsgetn(char* to, std::streamsize size) override;

   private:
    Streams& streams_;
    std::string kept_;
  };

  bool Send();
  std::size_t Read(char* to, std::size_t size);
  void Collect(std::size_t limit);
  void Check();
  void Wait();

  const std::size_t block_;
  std::unique_ptr<char[]> in_block_ = std::make_unique_for_overwrite<char[]>(block_);
  std::unique_ptr<char[]> out_block_ = std::make_unique_for_overwrite<char[]>(block_);
  std::exception_ptr untold_;  // streams swallow exceptions: the next call throws it
  std::string kept_;           // output that is not yet read
  bool dropped_ = false;       // more came than could be kept
  InBuffer in_buffer_{*this};
  OutBuffer out_buffer_{*this};
  std::ostream in_{&in_buffer_};
  std::istream out_{&out_buffer_};
};

}  // namespace pnl_command
