// Writers of byname and byvalue results, one record a result. The output
// functions of output.h hand such results to these.
#pragma once

#include <cstdio>

#include "tgdb/search_result.h"

// NAME  TYPE  RDATA  COUNT [FIRST / LAST], fields two spaces apart, times
// in local time as the other text results show them.
void write_linked_text(FILE* stream, const search_result& result);

// The record line itself, as the files of the result's kind hold it, so
// that raw output merges and bakes again.
void write_linked_raw(FILE* stream, const search_result& result);

// {"rrname":...,"rrtype":...,"rdata":...,"count":...,"time_first":...,
// "time_last":...} on one line, the fields of the common passive-DNS
// output format. Bytes outside printable ASCII in the names or data are
// written as the \DDD escapes of DNS presentation text, so the object is
// always valid JSON.
void write_linked_json(FILE* stream, const search_result& result);
