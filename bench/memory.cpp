#include "bench/memory.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

namespace bench {
namespace {

std::vector<size_t> chosen_places = {16, 0};
size_t past_page = 16;

}  // namespace

const std::vector<size_t>& places() {
  return chosen_places;
}

void choose_places(std::vector<size_t> bytes_past_page) {
  chosen_places = std::move(bytes_past_page);
}

void place_memory(size_t bytes) {
  past_page = bytes;
}

size_t memory_past_page() {
  return past_page;
}

void fill(void* data, size_t n_byte) {
  auto* const halves = static_cast<uint16_t*>(data);
  uint32_t state = 1;
  for (size_t i = 0; i < n_byte / sizeof(uint16_t); ++i) {
    state = state * 1664525 + 1013904223;
    halves[i] = static_cast<uint16_t>(0x3c00 | (state >> 16 & 0x83ff));
  }
}

std::shared_ptr<std::byte> filled_memory(size_t n_byte) {
  constexpr size_t page = 4096;
  const size_t whole_pages = (past_page + n_byte + page - 1) / page * page;
  const std::shared_ptr<std::byte> pages(static_cast<std::byte*>(std::aligned_alloc(page, whole_pages)), std::free);
  if (!pages) throw std::bad_alloc();
  fill(pages.get(), whole_pages);
  return {pages, pages.get() + past_page};
}

}  // namespace bench
