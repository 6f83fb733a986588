// The summary lines the subcommands print: labels in a column, figures after them.
#pragma once

#include <string>
#include <vector>

#include "outputs.h"
#include "pixels.h"
#include "progress.h"
#include "session.h"

namespace tvxcam {

// "8.1 MiB", or "?" when the file cannot be measured.
std::string size_text(const std::string &path);
// "2064 x 2048, 16-bit unsigned"
std::string shape_text(const Shape &s);

void print_stats(const char *label, const Stats &st);
void print_header(const Session &s, const char *command);
void print_exposure(const Exposure &e);
void print_planes(const std::vector<Plane> &planes);
void print_written(const std::vector<Written> &written);

// The stages of an exposure shown on the progress line.
Stages stages_of(Progress &p);

}  // namespace tvxcam
