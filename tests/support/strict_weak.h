// A property check for line orderings: on random lines, over all pairs and
// triples, the order is a strict weak order whose ties are exactly the
// lines of equal group.
#pragma once

#include <functional>
#include <random>
#include <string>
#include <string_view>

using line_compare = std::function<int(std::string_view, std::string_view)>;

// Makes property_count(10) rounds of 60 lines with `make` and fails the
// running test at the first pair or triple that breaks the order.
void expect_strict_weak(const line_compare& cmp, const std::function<std::string(std::mt19937_64&)>& make,
                        const std::function<std::string(const std::string&)>& group);
