#include "weights/decide.h"

#include <fnmatch.h>

#include <algorithm>
#include <utility>

#include "weights/error.h"
#include "weights/layout.h"

namespace weights {
namespace {

bool matches(const Rule& rule, const SourceTensor& tensor) {
  return fnmatch(rule.pattern.c_str(), tensor.name.c_str(), 0) == 0;
}

// Why a tensor cannot be packed; empty where it can.
const char* reason_to_carry(const SourceTensor& tensor) {
  if (tensor.shape.size() != 2) return "not 2-dimensional";
  if (!is_float(*tensor.dtype)) return "dtype is none of F64, F32, F16, BF16";
  if (tensor.shape[0] == 0 || tensor.shape[1] == 0) return "an extent is 0";
  return "";
}

struct Choice {
  int32_t form;
  std::string reason;
};

Choice choose(const SourceTensor& tensor, const std::vector<Rule>& rules, int32_t default_form) {
  if (const std::string reason = reason_to_carry(tensor); !reason.empty()) return {MORUN_WEIGHTS_CARRIED, reason};
  const auto rule = std::find_if(rules.rbegin(), rules.rend(), [&](const Rule& r) { return matches(r, tensor); });
  if (rule != rules.rend()) return {rule->form, "rule " + rule->pattern};
  if (tensor.is_npy) return {default_form, "a .npy matrix"};
  const auto contains = [&](const char* part) { return tensor.name.find(part) != std::string::npos; };
  if (!tensor.name.ends_with("weight")) return {MORUN_WEIGHTS_CARRIED, "name does not end in weight"};
  if (contains("embed")) return {MORUN_WEIGHTS_CARRIED, "name contains embed"};
  if (contains("norm")) return {MORUN_WEIGHTS_CARRIED, "name contains norm"};
  return {default_form, "name ends in weight"};
}

void measure(Decision& decision) {
  try {
    decision.n_byte = layout_of(decision.form, decision.n_inner, decision.n_col).n_byte;
  } catch (const Error& error) {
    decision.n_byte = 0;
    decision.refusal = error.what();
    decision.reason += "; cannot be packed: " + decision.refusal;
  }
}

}  // namespace

std::vector<Decision> decide(const std::vector<SourceTensor>& tensors, const std::vector<Rule>& rules,
                             int32_t default_form, bool transpose) {
  std::vector<Decision> decisions;
  for (const SourceTensor& tensor : tensors) {
    Choice choice = choose(tensor, rules, default_form);
    Decision decision;
    decision.tensor = &tensor;
    decision.form = choice.form;
    decision.reason = std::move(choice.reason);
    decision.n_byte = tensor.n_byte;
    if (is_packed(decision.form)) {
      const bool is_n_col_first = !tensor.is_npy && transpose;
      decision.n_inner = tensor.shape[is_n_col_first ? 1 : 0];
      decision.n_col = tensor.shape[is_n_col_first ? 0 : 1];
      decision.is_transposed = is_n_col_first || tensor.is_fortran_order;
      measure(decision);
    }
    decisions.push_back(std::move(decision));
  }
  std::stable_partition(decisions.begin(), decisions.end(), [](const Decision& d) { return is_packed(d.form); });
  return decisions;
}

void require_rules_used(const std::vector<SourceTensor>& tensors, const std::vector<Rule>& rules) {
  for (const Rule& rule : rules)
    if (std::none_of(tensors.begin(), tensors.end(), [&](const SourceTensor& t) { return matches(rule, t); }))
      throw Error(MORUN_WEIGHTS_RULE_UNUSED, "no tensor has a name that matches %s", in_quotes(rule.pattern).c_str());
}

}  // namespace weights
