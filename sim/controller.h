// The program the controller's transputer runs once its boot stream has been taken. The card and
// the boot loader know nothing of what it does: they hand it each item that crosses the link
// towards the controller and ask it for items to send back while the link has room.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "tvx/types.h"

namespace tvx::sim {

class ControllerProgram {
 public:
  virtual ~ControllerProgram() = default;
  // One item from the host has crossed the link.
  virtual void receive(WORD item) = 0;
  // Gives the next item for the host, or false when there is nothing to send now.
  virtual bool next_output(WORD &item) = 0;
  // Up to `most` items for the host, as next_output gives them one by one; returns how many.
  virtual size_t next_outputs(WORD *items, size_t most) {
    size_t n = 0;
    while (n < most && next_output(items[n])) ++n;
    return n;
  }
  // A link speed in Mbit/s the program has just switched its end of the link to; 0 for none.
  virtual int take_speed_change() { return 0; }
};

// Makes the program a boot image names (the boot stream's name is "install").
using ControllerFactory = std::function<std::unique_ptr<ControllerProgram>(const std::string &)>;

// Replaces the factory used by controllers booted from now on; an empty one restores the
// default, which runs the camera server for the boot stream "install" and, for any other, a
// program that takes every item and answers nothing.
void set_controller_factory(ControllerFactory factory);
std::unique_ptr<ControllerProgram> make_controller(const std::string &name);

}  // namespace tvx::sim
