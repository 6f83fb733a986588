// Cause codes and the advice they stand for. The generic table is always registered; start-up
// registers the camera table. Lookup searches the newest registration first.
#include <cstdio>
#include <cstdlib>

#include "tvx/error.h"

namespace {

constexpr cause_entry kGenericCauses[] = {
    {0x1001, "Too many applications active at once."},
    {0x1002, "Not enough system memory and/or swap space."},
    {0x1010, "The image file has been moved."},
    {0x1011, "The image file is not in the correct format."},
    {0x1012, "The image file has been truncated."},
    {0x1013, "The image file has been corrupted."},
    {0x1014, "The image file doesn't have the correct access permissions."},
    {0x1015, "Data is missing from the image file."},
    {0x1016, "The image file is too large."},
    {0x1017, "The image file is too small."},
    {0x1018, "The specified image filename is invalid."},
    {0x1020, "The program support file has been moved."},
    {0x1021, "The program support file is not in the correct format."},
    {0x1022, "The program support file has been truncated."},
    {0x1023, "The program support file has been corrupted."},
    {0x1024, "The program support file doesn't have the correct access permissions."},
    {0x1025, "Data is missing from the program support file."},
    {0x1026, "The program support file is too large."},
    {0x1027, "The program support file is too small."},
    {0x1028, "The specified program support filename is invalid."},
    {0x1030, "The disk is full."},
    {0x1031, "The specified directory does not exist."},
    {0x1032, "The specified drive does not exist."},
    {0x1040, "A programmer error has occurred."},
    {0x1041, "The program does not support this function."},
    {0x1042, "An internal program limit has been reached."},
    {0x1043, "An internal program error has occurred."},
    {0x1044, "Software version incompatible with the hardware."},
    {0x1045, "Application programmer error"},
    {0x1050, "Incorrect hardware parameter value used."},
    {0x1051, "Incorrect parameter value used."},
    {0x1060, "The specified region contains no pixels."},
    {0x1061, "The specified region is too large."},
    {0x1062, "The specified region is too small."},
    {0x1063, "The specified region is not on the image."},
    {0x1064, "All pixels in the region have a value of zero."},
    {0x1070, "The specified image size is too small to contain any pixels."},
    {0x1071, "The specified image size is too large."},
    {0x1072, "The specified image size is too small."},
    {0x1073, "The specified images are not of the same type and/or size."},
    {0x1074, "The specified images are the same."},
    {0x1075, "All pixels in the image have a value of zero."},
    {0x1080, "The configuration file doesn't exist or has been moved."},
    {0x1081, "The configuration file is not in the correct format."},
    {0x1082, "The configuration file has been truncated."},
    {0x1083, "The configuration file has been corrupted."},
    {0x1084, "The configuration file doesn't have the correct access permissions."},
    {0x1085, "Data is missing from the configuration file."},
    {0x1086, "The configuration file is too large."},
    {0x1087, "The configuration file is too small."},
    {0x1088, "The specified configuration filename is invalid."},
    {-1, nullptr},
};

constexpr cause_entry kCameraCauses[] = {
    {0x2000, "The camera hardware is not switched on."},
    {0x2001, "The camera hardware is not connected."},
    {0x2002, "The hardware has not been initialized yet."},
    {0x2003,
     "The hardware has been switched off then on. (Try re-initializing and re-trying operation.)"},
    {0x2004, "This version of the hardware is not supported."},
    {0x2005,
     "The hardware has failed. (Try switching unit off then on, re-initializing and re-trying "
     "operation.)"},
    {0x2006, "The CCD camera head is not attached."},
    {0x2007, "The CCD has failed."},
    {0x2008, "The power supply has failed."},
    {0x2009, "The power supply fuse has blown."},
    {0x200a, "A connecting cable is broken."},
    {0x200b, "The RISC card, in the computer, has failed or is not installed."},
    {0x200c, "The AT Link card, in the computer, has failed or is not installed."},
    {0x200d, "The computer hardware has failed."},
    {0x200e, "The computer hardware is not present."},
    {0x200f, "The computer hardware is already in use."},
    {0x2010, "The CCD is exposed to light. (Check the shutter.)"},
    {0x2011, "Errors in hardware configuration file."},
    {0x2012, "Errors in ccd configuration file."},
    {0x2013, "Errors in section GAIN_TABLE of hardware configuration file."},
    {0x201c, "Errors in section GAIN_CONSTANTS of hardware configuration file."},
    {0x2016, "Incorrect values in CCD section of ccd configuration file."},
    {0x2015, "Errors in section CCD of ccd configuration file."},
    {0x2014, "Errors in section ADC of hardware configuration file."},
    {0x2017, "Missing PROGRAMS section from ccd configuration file."},
    {0x2018, "Errors in section PROGRAMS of hardware configuration file."},
    {0x2019, "Errors in section VOLTAGES of hardware configuration file."},
    {0x201a, "CCD temperature may have changed since last initialization. (Try re-optimising)."},
    {0x201b, "The black level may have moved due to changes in gain. (Try re-optimising)."},
    {0x3001, "Errors in section TRANSPUTER of hardware configuration file."},
    {0x3002, "Errors in section DEVICE of hardware configuration file."},
    {0x3003, "Missing AT Link initialization transputer micro code file (typically atlinit.btm)."},
    {0x3004,
     "Corrupted AT Link initialization transputer micro code file (typically atlinit.btm)."},
    {0x3005, "Missing camera boot transputer micro code (typically install.btl)."},
    {0x3006,
     "Communications between AT-Link and camera has failed more than 2 times. (To clear "
     "condition re-allocate server record)."},
    {0x3007, "Communications protocol error: Programmer error."},
    {0x3008, "Out of date or corrupted transputer micro code file (typically install.btl)."},
    {0x3009, "Corrupted computer to camera communications."},
    {0x300a, "Missing camera transputer micro code (typically procinit or camera.r2h)."},
    {0x300b, "Out of date or corrupted transputer micro code file (typically camera.r2h)."},
    {0x4001,
     "Readout AOI too large for live mode - use smaller AOI, Super VGA display or Grab Loop."},
    {-1, nullptr},
};

cause_node generic_node{kGenericCauses, nullptr};
cause_node *registered = &generic_node;

}  // namespace

extern "C" {

const cause_entry *where_is_tvx_causes(void) {
  return kCameraCauses;
}

BOOL cause_check_list(const cause_entry *table) {
  for (const cause_node *n = registered; n != nullptr; n = n->next)
    if (n->table == table) return TRUE;
  return FALSE;
}

cause_node *cause_initialise(const cause_entry *table) {
  for (cause_node *n = registered; n != nullptr; n = n->next)
    if (n->table == table) return n;
  auto *node = static_cast<cause_node *>(std::calloc(1, sizeof(cause_node)));
  if (node == nullptr) return nullptr;
  node->table = table;
  node->next = registered;
  registered = node;
  return node;
}

const char *cause_message(INT32 cause) {
  for (const cause_node *n = registered; n != nullptr; n = n->next)
    for (const cause_entry *row = n->table; row->code != -1; ++row)
      if (row->code == cause) return row->text;
  static char unknown[64];
  std::snprintf(unknown, sizeof unknown, "Unknown cause code %d (%xH)", cause,
                static_cast<unsigned>(cause));
  return unknown;
}

}  // extern "C"
