// The server record behind its handle, and what the server's files share.
#pragma once

#include "foundation/locked.h"
#include "tvx/server.h"

namespace tvx::server {

struct Record {
  gain gains;
  adc converter;
  HANDLE programs;  // camprog handles, newest first
  device dev;
  trans transputer;
  BYTE concurrent;
  HANDLE controller;  // cs71
  HANDLE packets;     // csp
  char *definition_file;
  char *hardware_file;  // the file actually read: 7100hw.def in the system directory
  char *system_dir;
  HANDLE link;  // atlink
};

using Locked = tvx::Locked<Record>;

// A failed lock or a failed controller command: the operation's name on the error. Returns false.
bool refused(const char *operation);

}  // namespace tvx::server
