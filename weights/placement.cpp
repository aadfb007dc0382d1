#include "weights/placement.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <numeric>
#include <string>
#include <unordered_map>

#include "weights/error.h"
#include "weights/layout.h"
#include "weights/packed_file.h"

namespace weights {
namespace {

// What goes into one buffer in one piece: a group, or a tensor without one.
struct Unit {
  uint64_t n_byte = 0;
  uint64_t n_tensor = 0;
  uint64_t first_request = 0;
  bool is_in_first_session = false;  // has to be
};

// Where the tensor of a request stands in its unit.
struct Member {
  uint64_t unit;
  uint64_t offset;
};

struct Units {
  std::vector<Unit> units;
  std::vector<Member> members;  // by request
};

const PackedTensor& requested_tensor(const morun_weights_file& file, const morun_weights_request& request) {
  const PackedTensor& tensor = file.tensor(request.tensor);
  if (!is_packed(tensor.record.form))
    throw Error(MORUN_WEIGHTS_NOT_PACKED, "%s: tensor %s is not packed and cannot be loaded", file.input.path().c_str(),
                in_quotes(tensor.entry.name).c_str());
  return tensor;
}

// The single a8w4 product runs on session 0, whatever session has the weights.
bool has_to_be_in_first_session(const PackedTensor& tensor, const morun_weights_request& request) {
  return tensor.record.form == MORUN_WEIGHTS_A8W4 && (request.group == 0 || request.alone != 0);
}

Units units_of(const morun_weights_file& file, std::span<const morun_weights_request> requests) {
  Units all;
  std::unordered_map<uint32_t, uint64_t> unit_of_group;
  std::vector<bool> is_requested(file.tensors.size());
  for (const morun_weights_request& request : requests) {
    const PackedTensor& tensor = requested_tensor(file, request);
    if (is_requested[request.tensor])
      throw Error(MORUN_WEIGHTS_REQUESTED_TWICE, "%s: tensor %s is requested twice", file.input.path().c_str(),
                  in_quotes(tensor.entry.name).c_str());
    is_requested[request.tensor] = true;
    uint64_t number = all.units.size();
    if (request.group != 0) number = unit_of_group.emplace(request.group, number).first->second;
    if (number == all.units.size()) all.units.push_back({.first_request = all.members.size()});
    Unit& unit = all.units[number];
    all.members.push_back({number, unit.n_byte});
    unit.n_byte += tensor.n_byte();
    ++unit.n_tensor;
    unit.is_in_first_session |= has_to_be_in_first_session(tensor, request);
  }
  return all;
}

void require_units_fit(const morun_weights_file& file, std::span<const morun_weights_request> requests,
                       const std::vector<Unit>& units, uint64_t largest_buffer) {
  for (const Unit& unit : units) {
    if (unit.n_byte <= largest_buffer) continue;
    const morun_weights_request& request = requests[unit.first_request];
    const std::string tensor = "tensor " + in_quotes(file.tensor(request.tensor).entry.name);
    const std::string group = "group " + std::to_string(request.group) + ", of " + std::to_string(unit.n_tensor) +
                              " tensors from " + tensor + " on,";
    throw Error(MORUN_WEIGHTS_GROUP_TOO_LARGE, "%s: %s takes %ju bytes in one buffer, and the largest buffer has %ju",
                file.input.path().c_str(), (request.group == 0 ? tensor : group).c_str(), uintmax_t{unit.n_byte},
                uintmax_t{largest_buffer});
  }
}

struct Arrangement {
  std::vector<uint64_t> sizes;             // of the buffers
  std::vector<morun_weights_place> units;  // where each begins
  uint64_t n_first_session = 0;
};

// How units are put into buffers. What follows one another in the requests is likely to be multiplied one after the
// other, and a change of sessions between two products costs remote calls: the first strategy keeps the order.
struct Strategy {
  bool is_in_order;             // a new buffer once the next unit does not fit; otherwise the largest first, each into
                                // the fullest buffer that has room
  bool fills_up_first_session;  // other units may take what is left in the buffers that have to be in session 0
};
constexpr Strategy strategies[] = {{true, false}, {false, false}, {false, true}};

Arrangement arrange(const std::vector<Unit>& units, uint64_t largest_buffer, const Strategy& strategy) {
  std::vector<uint64_t> order(units.size());
  std::iota(order.begin(), order.end(), uint64_t{0});
  std::stable_sort(order.begin(), order.end(), [&](uint64_t a, uint64_t b) {
    if (units[a].is_in_first_session != units[b].is_in_first_session) return units[a].is_in_first_session;
    return !strategy.is_in_order && units[a].n_byte > units[b].n_byte;
  });

  Arrangement made;
  made.units.resize(units.size());
  std::multimap<uint64_t, uint32_t> rooms;  // bytes left, buffer
  bool is_first_session = true;
  for (const uint64_t number : order) {
    const Unit& unit = units[number];
    if (is_first_session && !unit.is_in_first_session) {
      is_first_session = false;
      if (!strategy.fills_up_first_session) rooms.clear();
    }
    auto room = rooms.lower_bound(unit.n_byte);
    if (room == rooms.end()) {
      if (strategy.is_in_order) rooms.clear();
      room = rooms.emplace(largest_buffer, static_cast<uint32_t>(made.sizes.size()));
      made.sizes.push_back(0);
      if (is_first_session) ++made.n_first_session;
    }
    uint64_t& size = made.sizes[room->second];
    made.units[number] = {room->second, static_cast<uint32_t>(size)};
    size += unit.n_byte;
    auto node = rooms.extract(room);
    node.key() -= unit.n_byte;
    rooms.insert(std::move(node));
  }
  return made;
}

// By the first strategy that takes no more than n_free buffers, or by the one that takes the fewest.
Arrangement arrange(const std::vector<Unit>& units, uint64_t largest_buffer, uint32_t n_free) {
  Arrangement best;
  for (const Strategy& strategy : strategies) {
    Arrangement made = arrange(units, largest_buffer, strategy);
    if (&strategy == strategies || made.sizes.size() < best.sizes.size()) best = std::move(made);
    if (best.sizes.size() <= n_free) break;
  }
  return best;
}

// The size of the largest buffer with which n_free buffers are enough, or 0.
uint64_t sufficient_largest_buffer(const std::vector<Unit>& units, uint64_t too_small, uint32_t n_free) {
  uint64_t below = too_small / part_alignment, sufficient = largest_matrix / part_alignment;
  const auto is_sufficient = [&](uint64_t n_part) {
    return arrange(units, n_part * part_alignment, n_free).sizes.size() <= n_free;
  };
  if (!is_sufficient(sufficient)) return 0;
  while (sufficient - below > 1) {
    const uint64_t middle = below + (sufficient - below) / 2;
    (is_sufficient(middle) ? sufficient : below) = middle;
  }
  return sufficient * part_alignment;
}

[[noreturn]] void refuse_buffers(const std::string& path, const std::vector<Unit>& units, size_t n_buffer,
                                 uint64_t largest_buffer, uint32_t n_free) {
  const uint64_t sufficient = sufficient_largest_buffer(units, largest_buffer, n_free);
  const std::string advice = sufficient != 0 ? "a largest buffer of " + std::to_string(sufficient) + " bytes would do"
                                             : std::string("no largest buffer would do");
  throw Error(MORUN_WEIGHTS_TOO_MANY_BUFFERS,
              "%s: of buffers of at most %ju bytes the tensors take %zu, and %u are free; %s", path.c_str(),
              uintmax_t{largest_buffer}, n_buffer, n_free, advice.c_str());
}

}  // namespace

Placement place(const morun_weights_file& file, std::span<const morun_weights_request> requests,
                uint64_t largest_buffer, uint32_t n_free_buffer) {
  if (largest_buffer == 0) largest_buffer = default_largest_buffer;
  require_argument(largest_buffer >= part_alignment && largest_buffer <= largest_matrix,
                   "largest_buffer is not within 2048 to 2^32 - 2048");
  require_argument(n_free_buffer <= TAVIK_MAX_BUFFERS, "n_free_buffer is above 32");
  const Units all = units_of(file, requests);
  require_units_fit(file, requests, all.units, largest_buffer);
  const Arrangement made = arrange(all.units, largest_buffer, n_free_buffer);
  if (made.sizes.size() > n_free_buffer)
    refuse_buffers(file.input.path(), all.units, made.sizes.size(), largest_buffer, n_free_buffer);

  Placement placement;
  placement.places.reserve(all.members.size());
  placement.plan.n_buffer = static_cast<uint32_t>(made.sizes.size());
  placement.plan.n_first_session = static_cast<uint32_t>(made.n_first_session);
  std::copy(made.sizes.begin(), made.sizes.end(), placement.plan.buffer_size);
  for (const Member& member : all.members) {
    const morun_weights_place& unit = made.units[member.unit];
    placement.places.push_back({unit.buffer, static_cast<uint32_t>(unit.offset + member.offset)});
  }
  return placement;
}

}  // namespace weights

int32_t morun_weights_plan_places(const morun_weights_file* file, uint64_t n_request,
                                  const morun_weights_request* requests, uint64_t largest_buffer,
                                  uint32_t n_free_buffer, morun_weights_plan* plan, morun_weights_place* places) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    weights::require_not_null(plan, "plan");
    if (n_request != 0) weights::require_not_null(requests, "requests");
    if (n_request != 0) weights::require_not_null(places, "places");
    const weights::Placement made = weights::place(*file, {requests, n_request}, largest_buffer, n_free_buffer);
    *plan = made.plan;
    std::copy(made.places.begin(), made.places.end(), places);
  });
}
