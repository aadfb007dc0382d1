// Packed matrices into shared buffers of a context.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <numeric>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "weights/error.h"
#include "weights/layout.h"
#include "weights/packed_file.h"
#include "weights/placement.h"

namespace weights {

// Buffers of tavik_buffer_alloc. Nothing frees them by itself, because freeing can fail and be tried again.
class SharedBuffers {
 public:
  explicit SharedBuffers(tavik_context* context) : context_(context) {}

  uint32_t count() const { return count_; }
  int32_t fd(uint32_t buffer) const { return fds_[buffer]; }
  std::byte* bytes(uint32_t buffer) const { return static_cast<std::byte*>(pointers_[buffer]); }
  uint32_t session(uint32_t buffer) const {
    uint64_t session = 0;
    tavik_context_get_session_from_fd(context_, fds_[buffer], &session);
    return static_cast<uint32_t>(session);
  }

  bool make(uint64_t n_byte) {
    if (tavik_buffer_alloc(context_, n_byte, &pointers_[count_], &fds_[count_]) != TAVIK_SUCCESS) return false;
    ++count_;
    return true;
  }

  // Frees what it can. Returns whether none is left.
  bool free_all() {
    uint32_t n_left = 0;
    for (uint32_t i = 0; i < count_; ++i) {
      if (!is_in_context(i) || tavik_buffer_free(context_, fds_[i]) == TAVIK_SUCCESS) continue;
      fds_[n_left] = fds_[i];
      pointers_[n_left++] = pointers_[i];
    }
    count_ = n_left;
    return n_left == 0;
  }

 private:
  // A program that has freed a buffer by its descriptor has freed it for good.
  bool is_in_context(uint32_t buffer) const {
    void* pointer = nullptr;
    return tavik_context_get_pointer_from_fd(context_, fds_[buffer], &pointer) == TAVIK_SUCCESS &&
           pointer == pointers_[buffer];
  }

  tavik_context* context_;
  uint32_t count_ = 0;
  int32_t fds_[TAVIK_MAX_BUFFERS] = {};
  void* pointers_[TAVIK_MAX_BUFFERS] = {};
};

namespace {

// Throws BUFFER, SESSION.
void make_buffers(const std::string& path, const tavik_context& context, const morun_weights_plan& plan,
                  SharedBuffers& buffers) {
  uint64_t n_byte_made = 0;
  for (uint32_t i = 0; i < plan.n_buffer; ++i) {
    if (!buffers.make(plan.buffer_size[i]))
      throw Error(
          MORUN_WEIGHTS_BUFFER,
          "%s: buffer %u of %u, of %ju bytes, cannot be had beside %ju bytes in those before it; the context has "
          "%ju sessions: %s",
          path.c_str(), i + 1, plan.n_buffer, uintmax_t{plan.buffer_size[i]}, uintmax_t{n_byte_made},
          uintmax_t{context.n_sessions}, tavik_error_get_last()->message);
    if (i < plan.n_first_session && buffers.session(i) != 0)
      throw Error(MORUN_WEIGHTS_SESSION,
                  "%s: the a8w4 matrices that are multiplied alone, and their groups, have to be in session 0 and take "
                  "%ju bytes; session 0 has no room for %ju bytes beside %ju of them",
                  path.c_str(),
                  uintmax_t{std::accumulate(plan.buffer_size, plan.buffer_size + plan.n_first_session, uint64_t{0})},
                  uintmax_t{plan.buffer_size[i]}, uintmax_t{n_byte_made});
    n_byte_made += plan.buffer_size[i];
  }
}

// In the order of the file, whatever that of the requests. Throws READ, SHRUNK, CHECKSUM.
void read_tensors(const morun_weights_file& file, std::span<const morun_weights_request> requests,
                  const Placement& placement, bool compares_checksums, const SharedBuffers& buffers) {
  std::vector<uint64_t> order(requests.size());
  std::iota(order.begin(), order.end(), uint64_t{0});
  std::sort(order.begin(), order.end(),
            [&](uint64_t a, uint64_t b) { return requests[a].tensor < requests[b].tensor; });
  for (const uint64_t i : order) {
    const morun_weights_place& place = placement.places[i];
    file.read_tensor(file.tensor(requests[i].tensor), compares_checksums, buffers.bytes(place.buffer) + place.offset);
  }
}

morun_weights_operand operand_at(const PackedTensor& tensor, const morun_weights_place& place,
                                 const SharedBuffers& buffers) {
  const bool has_vectors = is_quantised(tensor.record.form);
  morun_weights_operand operand = {};
  operand.form = tensor.record.form;
  operand.fd = buffers.fd(place.buffer);
  operand.session = buffers.session(place.buffer);
  operand.q_offset = place.offset;
  operand.z_offset = has_vectors ? place.offset + tensor.layout.zero_points : 0;
  operand.s_offset = has_vectors ? place.offset + tensor.layout.scales : 0;
  operand.sum_offset = has_vectors ? place.offset + tensor.layout.sums : 0;
  operand.padded_n_inner = static_cast<int32_t>(tensor.layout.padded_n_inner);
  operand.padded_n_col = static_cast<int32_t>(tensor.layout.padded_n_col);
  operand.n_inner = static_cast<int32_t>(tensor.record.n_inner);
  operand.n_col = static_cast<int32_t>(tensor.record.n_col);
  operand.bytes = buffers.bytes(place.buffer) + place.offset;
  return operand;
}

// What is made stays in `buffers` when this throws.
std::vector<morun_weights_operand> load(const morun_weights_file& file, const tavik_context& context,
                                        std::span<const morun_weights_request> requests,
                                        const morun_weights_load_options& options, SharedBuffers& buffers) {
  const auto n_free_buffer = static_cast<uint32_t>(TAVIK_MAX_BUFFERS - context.n_buffers);
  const Placement placement = place(file, requests, options.largest_buffer, n_free_buffer);
  std::vector<morun_weights_operand> operands(requests.size());
  make_buffers(file.input.path(), context, placement.plan, buffers);
  read_tensors(file, requests, placement, options.skip_checksums == 0, buffers);
  for (size_t i = 0; i < operands.size(); ++i)
    operands[i] = operand_at(file.tensor(requests[i].tensor), placement.places[i], buffers);
  return operands;
}

}  // namespace
}  // namespace weights

struct morun_weights_loaded {
  weights::SharedBuffers buffers;
  std::vector<morun_weights_operand> operands;
};

void morun_weights_load_options_init(morun_weights_load_options* options) {
  *options = {weights::default_largest_buffer, 0, 0};
}

int32_t morun_weights_load(const morun_weights_file* file, tavik_context* context, uint64_t n_request,
                           const morun_weights_request* requests, const morun_weights_load_options* options,
                           morun_weights_loaded** loaded) {
  weights::SharedBuffers buffers(context);
  const int32_t status = weights::guarded([&] {
    weights::require_not_null(file, "file");
    weights::require_not_null(context, "context");
    weights::require_not_null(loaded, "loaded");
    if (n_request != 0) weights::require_not_null(requests, "requests");
    const morun_weights_load_options defaults = {};
    const morun_weights_load_options& chosen = options != nullptr ? *options : defaults;
    auto operands = weights::load(*file, *context, {requests, n_request}, chosen, buffers);
    *loaded = new morun_weights_loaded{buffers, std::move(operands)};
  });
  if (status == MORUN_WEIGHTS_SUCCESS || buffers.free_all()) return status;
  char text[1024];
  snprintf(text, sizeof text,
           "%u of the buffers stay in the context, because the DSP refuses to free them (%s), after: %s",
           buffers.count(), tavik_error_get_last()->message, morun_weights_error_text());
  return weights::record_failure(status, text);
}

int32_t morun_weights_operand_of(const morun_weights_loaded* loaded, uint64_t index, morun_weights_operand* operand) {
  return weights::guarded([&] {
    weights::require_not_null(loaded, "loaded");
    weights::require_not_null(operand, "operand");
    weights::require_argument(index < loaded->operands.size(), "index is not below the number of requests");
    *operand = loaded->operands[index];
  });
}

int32_t morun_weights_release(morun_weights_loaded* loaded) {
  return weights::guarded([&] {
    if (loaded == nullptr) return;
    if (!loaded->buffers.free_all())
      throw weights::Error(MORUN_WEIGHTS_BUFFER, "%u of the buffers cannot be freed: %s", loaded->buffers.count(),
                           tavik_error_get_last()->message);
    delete loaded;
  });
}
