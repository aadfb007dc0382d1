#include "bench/peers.h"

#include <fmt/format.h>
#include <omp.h>

#include <dnnl.hpp>
#include <memory>
#include <unordered_map>
#include <vector>

#include "bench/memory.h"

namespace bench {
namespace {

using Tag = dnnl::memory::format_tag;
using Type = dnnl::memory::data_type;

// The single oneDNN engine. Its primitives run on the calling thread and use AVX2 at most.
const dnnl::engine& engine() {
  static const dnnl::engine engine = [] {
    omp_set_num_threads(1);
    dnnl::set_max_cpu_isa(dnnl::cpu_isa::avx2);
    return dnnl::engine(dnnl::engine::kind::cpu, 0);
  }();
  return engine;
}

Type type(Element element) {
  switch (element) {
    case Element::f32:
      return Type::f32;
    case Element::i32:
      return Type::s32;
    case Element::u8:
      return Type::u8;
    case Element::i8:
      return Type::s8;
  }
  return Type::undef;
}

Tag tag(Arrangement arrangement) {
  switch (arrangement) {
    case Arrangement::rows:
      return Tag::ab;
    case Arrangement::blocks:
      return Tag::AB16a16b;
    case Arrangement::columns:
      return Tag::ba;
  }
  return Tag::undef;
}

dnnl::memory::desc matrix(size_t n_row, size_t n_col, PeerMatrix kind) {
  return {{static_cast<dnnl_dim_t>(n_row), static_cast<dnnl_dim_t>(n_col)}, type(kind.element), tag(kind.arrangement)};
}

// Allocates the matrices and lets the peer own them.
Peer execution(dnnl::primitive primitive, const std::unordered_map<int, dnnl::memory::desc>& matrices) {
  std::vector<std::shared_ptr<std::byte>> owned;
  std::unordered_map<int, dnnl::memory> arguments;
  for (const auto& [argument, description] : matrices) {
    owned.push_back(filled_memory(description.get_size()));
    arguments.emplace(argument, dnnl::memory(description, engine(), owned.back().get()));
  }
  return [primitive, owned, arguments, stream = dnnl::stream(engine())]() mutable {
    primitive.execute(stream, arguments);
    stream.wait();
  };
}

}  // namespace

Peer reorder_peer(size_t n_row, size_t n_col, PeerMatrix from, PeerMatrix to, bool scaled) {
  const dnnl::memory::desc source = matrix(n_row, n_col, from), target = matrix(n_row, n_col, to);
  dnnl::primitive_attr attributes;
  if (scaled) attributes.set_output_scales(0, {0.5f});
  return execution(dnnl::reorder({engine(), source, engine(), target, attributes}),
                   {{DNNL_ARG_FROM, source}, {DNNL_ARG_TO, target}});
}

Peer matmul_peer(size_t n_row, size_t n_col, size_t n_inner, Element left, Element right, Element result) {
  const dnnl::memory::desc X = matrix(n_row, n_inner, {left, Arrangement::rows}),
                           W = matrix(n_inner, n_col, {right, Arrangement::rows}),
                           A = matrix(n_row, n_col, {result, Arrangement::rows});
  const dnnl::matmul::primitive_desc description({X, W, A}, engine());
  return execution(dnnl::matmul(description), {{DNNL_ARG_SRC, X}, {DNNL_ARG_WEIGHTS, W}, {DNNL_ARG_DST, A}});
}

std::string onednn_description() {
  const dnnl_version_t& version = *dnnl::version();
  return fmt::format("oneDNN {}.{}.{} on one thread, AVX2", version.major, version.minor, version.patch);
}

}  // namespace bench
