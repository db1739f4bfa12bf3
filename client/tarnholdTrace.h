#pragma once
#include "recordFormat.h"
#include <string>
struct traceState { int32_t requestFd = -1; };
void traceReset(traceState &s);
void traceTake(traceState &s, const recordView &v);
std::string traceLine(const traceState &s, const recordView &v);
