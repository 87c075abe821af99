#include "serialization.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace {
std::atomic<long> gLiveBlocks{0};
std::atomic<bool (*)(std::size_t)> gAllocationHook{nullptr};
}  // namespace

void* VUGlobal::operator new(std::size_t size) {
  bool (*hook)(std::size_t) = gAllocationHook.load(std::memory_order_acquire);
  if (hook != nullptr && hook(size)) throw std::bad_alloc();
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  gLiveBlocks.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void VUGlobal::operator delete(void* block) noexcept {
  if (block == nullptr) return;
  gLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
  std::free(block);
}

long VUGlobal::LiveBlocks() { return gLiveBlocks.load(std::memory_order_relaxed); }

void VUGlobal::SetAllocationHook(bool (*shouldFail)(std::size_t)) {
  gAllocationHook.store(shouldFail, std::memory_order_release);
}

VStream::VStream(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)), loading_(true) {}

void VStream::StartLoading() {
  loading_ = true;
  pos_ = 0;
}

void VStream::PassBytes(uint8_t* data, std::size_t size) {
  if (!loading_) {
    bytes_.insert(bytes_.end(), data, data + size);
    return;
  }
  if (size > Remaining()) throw std::runtime_error("VStream: read past the end of the stream");
  std::memcpy(data, bytes_.data() + pos_, size);
  pos_ += size;
}

// Values are coded byte by byte, least significant first, so the form does
// not depend on the host's byte order.
template <typename Unsigned>
void VStream::PassLittleEndian(Unsigned& value) {
  uint8_t bytes[sizeof(Unsigned)];
  for (std::size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
  PassBytes(bytes, sizeof bytes);
  if (!loading_) return;
  Unsigned read = 0;
  for (std::size_t i = 0; i < sizeof bytes; ++i) read |= static_cast<Unsigned>(bytes[i]) << (8 * i);
  value = read;
}

void VStream::Pass(uint64_t& value) { PassLittleEndian(value); }
void VStream::Pass(uint32_t& value) { PassLittleEndian(value); }
void VStream::Pass(uint16_t& value) { PassLittleEndian(value); }

void VStream::Pass(uint8_t& value) { PassBytes(&value, 1); }

void VStream::Pass(bool& value) {
  uint8_t byte = value ? 1 : 0;
  PassBytes(&byte, 1);
  if (loading_) value = byte != 0;
}

void VStream::Pass(int8_t& value) {
  uint8_t bits = static_cast<uint8_t>(value);
  Pass(bits);
  if (loading_) value = static_cast<int8_t>(bits);
}

void VStream::Pass(int16_t& value) {
  uint16_t bits = static_cast<uint16_t>(value);
  Pass(bits);
  if (loading_) value = static_cast<int16_t>(bits);
}

void VStream::Pass(float& value) {
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  Pass(bits);
  if (loading_) std::memcpy(&value, &bits, sizeof bits);
}

void VStream::Pass(int32_t& value) {
  uint32_t bits = static_cast<uint32_t>(value);
  Pass(bits);
  if (loading_) value = static_cast<int32_t>(bits);
}

void VStream::Pass(int64_t& value) {
  uint64_t bits = static_cast<uint64_t>(value);
  Pass(bits);
  if (loading_) value = static_cast<int64_t>(bits);
}

void VStream::Pass(double& value) {
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  Pass(bits);
  if (loading_) std::memcpy(&value, &bits, sizeof bits);
}

void VStream::Pass(std::string& value) {
  uint32_t size = static_cast<uint32_t>(value.size());
  Pass(size);
  if (!loading_) {
    PassBytes(reinterpret_cast<uint8_t*>(&value[0]), value.size());
    return;
  }
  // Checked before allocating, so a corrupt length cannot ask for gigabytes.
  if (size > Remaining()) throw std::runtime_error("VStream: string longer than the stream");
  std::string read(size, '\0');
  PassBytes(reinterpret_cast<uint8_t*>(&read[0]), size);
  value.swap(read);
}

int ForeignProcess(void* object, unsigned int number, VStream& stream,
                   void (*serialize)(void*, VStream&), char const* name) {
  uint32_t passedNumber = number;
  std::string passedName = name;
  stream.Pass(passedNumber);
  stream.Pass(passedName);
  if (stream.IsLoading() && (passedNumber != number || passedName != name)) {
    throw std::runtime_error("ForeignProcess: stream holds \"" + passedName + "\", expected \"" +
                             std::string(name) + "\"");
  }
  serialize(object, stream);
  return 0;
}
