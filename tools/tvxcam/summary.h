// What the subcommands tell: summary lines with labels in a column and figures after them, and the
// same facts as members of the one JSON object a command prints with --json.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "json.h"
#include "outputs.h"
#include "pixels.h"
#include "progress.h"
#include "session.h"

namespace tvxcam {

// "8.1 MiB", or "?" when the file cannot be measured.
std::string size_text(const std::string &path);
// "2064 x 2048, 16-bit unsigned", and ", 2 channels" for a plane that holds two.
std::string shape_text(const Shape &s, int channels = 1);
// The statistics of a plane: of the whole, or of each channel ("channel 1", "channel 2").
std::vector<std::pair<std::string, Stats>> plane_stats(const Plane &p);

void print_stats(const char *label, const Stats &st);
void print_header(const Session &s, const char *command);
void print_exposure(const Exposure &e);
void print_planes(const std::vector<Plane> &planes);
// The files written, then those that could not be, each with its reason, on standard error.
void print_writing(const Writing &w);

void json_camera(Json &j, const Session &s);
void json_exposure(Json &j, const Exposure &e);
void json_planes(Json &j, const std::vector<Plane> &planes);
void json_stats(Json &j, const char *key, const Stats &st);
void json_writing(Json &j, const Writing &w);
void json_errors(Json &j, const session::ErrorReport &report);

// The stages of an exposure shown on the progress line.
Stages stages_of(Progress &p);

}  // namespace tvxcam
