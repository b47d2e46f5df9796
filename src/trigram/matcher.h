// PROVISIONAL (replaced when the matcher lands): confirms candidate lines.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "trigram/search_context.h"

bool compile_search(search_context& ctx, const char* expression, bool is_glob, int* status_out,
                    std::string* error_out);
bool match_line(search_context& ctx, const char* data, size_t length);
void free_search_context(std::unique_ptr<search_context>& ctx);
