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

/// What a command of this host and one of a node have in common; for the sources of this directory
/// only.
namespace pnl_command {

/// What a command says on its standard error. To the log go whole lines, over-long ones in pieces,
/// and no more than the first kMost bytes, so that no node fills this host's disk; the end is kept.
class ErrorText {
 public:
  explicit ErrorText(pnl_log::Module& module) : module_(module) {}
  /// Tells the lines of one command in the log from those of others.
  void SetName(std::string name) { name_ = std::move(name); }

  /// A lack of memory, below foreign code, costs words and nothing else.
  void Add(std::string_view data) noexcept;
  void Flush();  ///< logs a last line that has no line end
  std::string End() const;

 private:
  void Log(std::string_view data);

  pnl_log::Module& module_;
  std::string name_;
  std::string line_;
  std::size_t logged_ = 0;  // bytes
  std::string end_;         // and the byte before it
};

/// The streams of one running command. An end below it moves the bytes; here is what the caller has
/// written and the command has not got yet, and what it has said and nobody has read yet.
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
  /// `block` bytes are written or read at once; what the caller writes or reads in larger blocks is
  /// not copied.
  Streams(pnl_log::Module& module, std::size_t block);
  virtual ~Streams() = default;

  /// Moves bytes in every direction, sending what is unsent, until `done`: output goes to Keep
  /// while `keeping_` is set, and else no further than Receive wants it.
  virtual void PumpUntil(const std::function<bool()>& done) = 0;
  /// At most `size` bytes of standard output, at least one; 0 at its end.
  virtual std::size_t Receive(char* to, std::size_t size) = 0;
  virtual void CloseInput() = 0;
  virtual void WaitEnd() = 0;        ///< with all that has been said by then
  virtual int ExitCode() const = 0;  ///< after WaitEnd
  /// Gives the command's output up and throws.
  [[noreturn]] virtual void ThrowDropped() = 0;
  virtual void ThrowIfLost() {}
  virtual void TakeHeld() {}  ///< gives Keep the output that a library below holds
  virtual bool Flushed() const { return true; }  ///< what was sent has left this process
  /// The command has ended, and what it left behind takes no input.
  virtual bool Stuck() const = 0;

  std::string_view Unsent() const { return in_buffer_.Unsent(); }
  void Sent(std::size_t bytes) { in_buffer_.Sent(bytes); }
  void ShutIn();
  bool TakesInput() const { return !in_closed_ && !closed_; }
  bool OutEnded() const { return out_ended_ || closed_; }
  bool HasKept() { return !kept_.empty() || out_buffer_.in_avail() > 0; }
  /// What there is no memory for counts as dropped: nothing is thrown through foreign code.
  void Keep(std::string_view output) noexcept;
  std::string TakeKept();
  bool Dropped() const { return dropped_; }

  /// What came on standard error.
  void Complain(std::string_view data) noexcept;

  ErrorText error_;
  std::function<void(std::string_view)> complaints_;  // who wants it as it comes
  std::size_t limit_;       // of the output that is kept
  bool keeping_ = false;    // the output that comes
  bool in_closed_ = false;  // here
  bool out_ended_ = false;
  bool waited_ = false;  // for the end
  bool closed_ = false;  // all of it, by the other side or because it was given up

 private:
  // What the caller has written and the command has not been given yet is the put area itself, or
  // the large block that he is just writing.
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

  // A large block is read to where the caller wants it.
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
  std::exception_ptr untold_;  // a stream swallows what is thrown below it: the next call tells it
  std::string kept_;           // output that the caller has not asked for yet
  bool dropped_ = false;       // there was more of it than could be kept
  InBuffer in_buffer_{*this};
  OutBuffer out_buffer_{*this};
  std::ostream in_{&in_buffer_};
  std::istream out_{&out_buffer_};
};

}  // namespace pnl_command
