// A caller of the emulated platform that lies: calls in any order with any scalars, arguments, descriptors, offsets and
// sizes, with sessions in this process and in processes of their own. Every call returns a status, the DSP lives on, and
// nothing is written outside the buffers that a session maps.
#include <string_view>

#include "platform/parlo.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::expect;

fuzz::Counter refused = "refused invocations", done = "invocations", products = "products", mapped = "mappings",
              unmapped = "unmappings", in_processes = "calls of processes";

constexpr size_t n_buffer = 6, n_handle = 4;
constexpr char uris[][128] = {"file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.0&_dom=cdsp",
                              "file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.0&_dom=cdsp&_session=1"};

// Zeros where bytes are missing.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), end_(data + size) {}
  bool empty() const { return data_ == end_; }
  uint8_t next() { return empty() ? 0 : *data_++; }
  uint32_t word() {
    uint32_t word = next();
    for (int i = 0; i < 3; ++i) word = word << 8 | next();
    return word;
  }

 private:
  const uint8_t *data_, *end_;
};

// A shared buffer, and a view of all its pages: what lies behind its last byte stays zero.
struct Buffer {
  uint8_t* address = nullptr;
  int fd = -1;
  uint64_t size = 0, pages = 0;
  uint8_t* view = nullptr;

  void allocate(uint64_t n_byte) {
    release();
    address = static_cast<uint8_t*>(parlo_mem_alloc2(25, 1, n_byte));
    expect(address != nullptr, "no shared memory");
    fd = parlo_mem_to_fd(address);
    size = n_byte;
    pages = (size + 4095) / 4096 * 4096;
    view = static_cast<uint8_t*>(mmap(nullptr, pages, PROT_READ, MAP_SHARED, fd, 0));
    memset(address, 0x11, size);
  }
  void release() {
    if (view != nullptr) munmap(view, pages);
    parlo_mem_free(address);
    *this = {};
  }
  // By memcmp: the sanitizer would report every byte of a loop to the search.
  bool is_intact() const {
    static const uint8_t zeros[4096] = {};
    return memcmp(view + size, zeros, pages - size) == 0;
  }
  bool is_untouched() const { return view[0] == 0x11 && memcmp(view, view + 1, size - 1) == 0; }
};

// The sessions of one carrier.
struct Platform {
  int32_t carrier = PARLO_EMULATOR_PROCESS;
  uint64_t handles[n_handle] = {};  // the last one is the reserved session's, the others are the first session's
  Buffer buffers[n_buffer], never_mapped;
  int domains[2] = {3, 0};

  void open(size_t i) {
    if (handles[i] != 0) return;
    parlo_emulator_set_carrier(carrier);
    const size_t session = i == n_handle - 1;
    parlo_session_reserve record = {"cdsp", 4, "Tavik_1", 7, 0, 0};
    if (session == 1) {
      expect(parlo_session_control(PARLO_SESSION_RESERVE, &record, sizeof record) == 0, "no session to reserve");
      domains[1] = static_cast<int>(record.effective_domain_id);
    }
    parlo_session_unsigned_module allowed = {domains[session], 1};
    parlo_session_control(PARLO_SESSION_UNSIGNED_MODULE, &allowed, sizeof allowed);
    expect(parlo_handle_open(uris[session], &handles[i]) == 0, "a session cannot be opened");
  }
  void begin() {
    parlo_emulator_set_call_limit(20000);
    for (size_t i = 0; i < n_handle; ++i) open(i);
    const uint64_t sizes[n_buffer] = {4096, 8192, 12288, 1000, 2048, 1};
    for (size_t i = 0; i < n_buffer; ++i) buffers[i].allocate(sizes[i]);
    never_mapped.allocate(4096);
  }
  void end() {
    for (uint64_t& handle : handles) {
      expect(handle == 0 || parlo_handle_close(handle) == 0, "a handle cannot be closed");
      handle = 0;
    }
    for (Buffer& buffer : buffers) buffer.release();
    never_mapped.release();
  }

  Buffer& buffer(Bytes& b) { return buffers[b.next() % n_buffer]; }
  uint64_t handle(Bytes& b) {
    const uint8_t code = b.next();
    return code < 224 ? handles[code % n_handle] : b.word() | uint64_t{b.word()} << 32;
  }
  int domain(Bytes& b) {
    const uint8_t code = b.next();
    return code < 224 ? domains[code % 2] : static_cast<int>(b.word());
  }

  // A dimension, a descriptor, an offset or a number of bytes, as the method takes it there; now and then another word.
  uint32_t word(Bytes& b, char kind) {
    const uint8_t code = b.next();
    if (code >= 248) return ~0u >> (code - 248);
    if (code >= 236) return b.word();
    if (code >= 230) return static_cast<uint32_t>(never_mapped.fd);
    if (kind == 'd') return code < 192 ? 32 * (1 + code % 3) : code % 97;
    if (kind == 'f') return static_cast<uint32_t>(buffers[code % n_buffer].fd);
    return kind == 'o' && code < 128 ? 0 : 64 * (code % 16);
  }

  void check(int status) const {
    expect(status != PARLO_EMULATOR_SESSION_LOST && status != PARLO_EMULATOR_TIMED_OUT, "the DSP has died or hangs");
    expect(never_mapped.is_untouched() && never_mapped.is_intact(), "a buffer that is not mapped is written");
    for (const Buffer& b : buffers) expect(b.is_intact(), "bytes behind a buffer are written");
  }

  // A method with the buffers that it takes, each of them, or the scalars word, changed now and then.
  void invoke(Bytes& b) {
    constexpr std::string_view words_of[] = {"",           "",      "",          "ffff",       "",        "",
                                             "",           "",      "",          "dddfffooo",  "dddfo",   "dddffoo",
                                             "ddddfffooo", "bf",    "dddfffooo", "dddfo",      "dddffoo", "ddddfffooo",
                                             "dddfffooo",  "dddfo", "dddffoo",   "ddddfffooo", "b"};
    const uint64_t target = handle(b);
    const uint32_t method = b.next() % 25;
    const bool is_version = method == 22;
    const std::string_view kinds = method < std::size(words_of) ? words_of[method] : "bbb";
    uint32_t words[16] = {}, outputs[4];
    for (size_t i = 0; i < kinds.size(); ++i) words[i] = word(b, kinds[i]);
    char text[64];
    if (is_version) words[0] %= sizeof text;
    const size_t n = kinds.size();
    parlo_argument arguments[256] = {};
    arguments[0] = {words, 4 * n};
    if (is_version) arguments[1] = {outputs, sizeof outputs}, arguments[2] = {text, words[0]};
    uint32_t scalars = PARLO_SCALARS(method, n != 0, is_version ? 2 : 0);
    const uint8_t lie = b.next();
    if (lie >= 240) scalars ^= b.word();
    if (lie >= 224 && lie < 232) arguments[lie % 3].length = b.word() % 64;
    if (lie >= 232 && lie < 240) arguments[lie % 3].data = nullptr;
    const int status = parlo_handle_invoke(target, scalars, lie == 223 ? nullptr : arguments);
    check(status);
    (status == 0 ? done : refused) += 1;
    products += status == 0 && method >= 9 && method != 13 && !is_version;
    in_processes += carrier == PARLO_EMULATOR_PROCESS;
  }

  void map(Bytes& b) {
    Buffer& named = buffer(b);
    const uint8_t lie = b.next();
    const uint64_t length = lie < 224 ? named.size : b.word();
    const int status = parlo_mmap(domain(b), lie == 223 ? static_cast<int>(b.word()) : named.fd, named.address,
                                  lie == 222 ? 4096 : 0, length, 2);
    check(status);
    mapped += status == 0;
  }
  void unmap(Bytes& b) {
    Buffer& named = buffer(b);
    const uint8_t lie = b.next();
    const int status =
        parlo_munmap(domain(b), named.fd, named.address + (lie == 223), lie < 224 ? named.size : b.word());
    check(status);
    unmapped += status == 0;
  }

  void step(Bytes& b) {
    switch (b.next() % 16) {
      case 0:
      case 1:
      case 2:
        return map(b);
      case 3:
        return unmap(b);
      case 4:
        return buffer(b).allocate(1 + b.word() % 20000);
      case 5: {
        // A handle besides the first one, so that the first session goes on; seldom the whole other session.
        const uint8_t code = b.next();
        const size_t i = code < 252 ? 1 + code % 2 : n_handle - 1;
        if (handles[i] != 0) check(parlo_handle_close(handles[i]));
        handles[i] = 0;
        return open(i);
      }
      case 6: {  // what a product needs
        const uint64_t target = handles[b.next() % n_handle];
        for (const uint32_t method : {5u, 7u}) check(parlo_handle_invoke(target, PARLO_SCALARS(method, 0, 0), nullptr));
        for (Buffer& each : buffers)
          for (const int d : domains) check(parlo_mmap(d, each.fd, each.address, 0, each.size, 2));
        return;
      }
      default:
        return invoke(b);
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return fuzz::start();
}

// The sessions serve many inputs before those of the other carrier take their place.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr int n_input_of_phase = 500;
  static Platform platform;
  static int n_input = 0;
  if (n_input++ % n_input_of_phase == 0) {
    platform.end();
    parlo_emulator_reset();
    platform.carrier = n_input / n_input_of_phase % 2 == 0 ? PARLO_EMULATOR_PROCESS : PARLO_EMULATOR_IN_PROCESS;
    platform.begin();
  }
  for (Bytes bytes(data, size); !bytes.empty();) platform.step(bytes);
  parlo_emulator_trace_clear();
  return 0;
}
