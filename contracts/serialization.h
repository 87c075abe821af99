// The serialisation library of the server: the base of everything that
// crosses a client channel, the byte stream it crosses through, the allocator
// of messages, and the record of a reported error.
#ifndef SDM_CONTRACTS_SERIALIZATION_H
#define SDM_CONTRACTS_SERIALIZATION_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The allocator of messages. Classes derived from it take their blocks from
// here and give them back here; a live-block count makes leaks visible.
// Thread-safe.
class VUGlobal {
 public:
  static void* operator new(std::size_t size);
  static void operator delete(void* block) noexcept;
  // Blocks handed out and not yet given back, over the whole process.
  static long LiveBlocks();

  // Testing aid, not for the server: while a hook is set, operator new asks
  // it first and throws std::bad_alloc when it answers true, so a test can
  // fail message allocations in the same sequence as its own replacement of
  // the global operator new. Null removes the hook. The hook is read
  // atomically and may be called from any thread.
  static void SetAllocationHook(bool (*shouldFail)(std::size_t size));
};

// An in-memory byte stream that is first written (storing) and then read
// back (loading). Every value has a fixed width and is laid down little-endian;
// a string is a 32-bit length followed by its bytes. Reading past the end
// throws std::runtime_error and leaves the value untouched. One thread at a
// time.
class VStream {
 public:
  VStream() = default;                           // storing, empty
  explicit VStream(std::vector<uint8_t> bytes);  // loading `bytes`

  bool IsLoading() const { return loading_; }
  // Switches a written stream to reading from its first byte.
  void StartLoading();
  std::vector<uint8_t> const& Bytes() const { return bytes_; }
  std::size_t Remaining() const { return bytes_.size() - pos_; }

  // Writes the value when storing, reads it into `value` when loading, so
  // one Serialize routine serves both directions.
  void Pass(bool& value);
  void Pass(uint8_t& value);
  void Pass(int8_t& value);
  void Pass(uint16_t& value);
  void Pass(int16_t& value);
  void Pass(uint32_t& value);
  void Pass(int32_t& value);
  void Pass(uint64_t& value);
  void Pass(int64_t& value);
  void Pass(float& value);
  void Pass(double& value);
  void Pass(std::string& value);

 private:
  void PassBytes(uint8_t* data, std::size_t size);
  // An unsigned value as its bytes, least significant first.
  template <typename Unsigned>
  void PassLittleEndian(Unsigned& value);

  std::vector<uint8_t> bytes_;
  std::size_t pos_ = 0;
  bool loading_ = false;
};

// Base of everything that crosses a channel. Blocks come from VUGlobal.
class VSerializable : public VUGlobal {
 public:
  VSerializable() = default;
  VSerializable(VSerializable const&) = default;
  VSerializable& operator=(VSerializable const&) = default;
  virtual ~VSerializable() = default;
  virtual void SetName(char const*) {}
  // A new copy, allocated through VUGlobal, owned by the caller.
  virtual VSerializable* Clone() const = 0;
  // Passes the object through `stream` by way of ForeignProcess.
  virtual int Process(VStream& stream) = 0;
  virtual char const* GetClassName() const = 0;
};

// Passes one object through `stream`: when storing it writes `number` and
// `name` and then lets `serialize` write the fields; when loading it reads
// and checks them (std::runtime_error on a mismatch) and lets `serialize`
// read the fields. Returns 0.
int ForeignProcess(void* object, unsigned int number, VStream& stream,
                   void (*serialize)(void*, VStream&), char const* name);

// One error as the server's procedures report it. severity 1 is an error,
// every other value a warning; detail is carried along unread.
struct ErrorText {
  std::string text;
  uint8_t severity = 1;
  uint64_t detail = 0;
};

#endif  // SDM_CONTRACTS_SERIALIZATION_H
