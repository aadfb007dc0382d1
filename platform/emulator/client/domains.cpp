#include "platform/emulator/client/domains.h"

namespace parlo::client {
namespace {

constexpr Domain all_domains[] = {
    {0, "adsp", PARLO_DOMAIN_TYPE_MIRVA, true},   {1, "mdsp", PARLO_DOMAIN_TYPE_OTHER, false},
    {2, "sdsp", PARLO_DOMAIN_TYPE_OTHER, false},  {compute_domain, "cdsp", PARLO_DOMAIN_TYPE_TOSKA, true},
    {4, "cdsp1", PARLO_DOMAIN_TYPE_OTHER, false},
};

}  // namespace

std::span<const Domain> domains() {
  return all_domains;
}

const Domain* find_domain(std::string_view name) {
  for (const Domain& domain : all_domains)
    if (name == domain.name) return &domain;
  return nullptr;
}

}  // namespace parlo::client
