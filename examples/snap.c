/* Takes one picture with the camera through the C interface and writes it to a file.
 *
 *   snap CCD_FILE [OUTPUT]
 *
 * CCD_FILE is a CCD definition file; the hardware definition file "7100hw.def" is read from the
 * same directory. With the installed simulated camera that is, for example,
 * <prefix>/share/tvx/sim/sim_small.def. The picture is written in the library's native format
 * to OUTPUT (default "snap.img"). On failure the library's error stack is printed, with the
 * routines it passed through and the suggested causes, and the exit status is 1. */
#include <stdio.h>

#include "tvx/tvx.h"

#define EXPOSURE_MS 100

static int report_failure(const char *what) {
  err_stack stack = NULL;
  char *story = NULL;
  err_where_is(&stack);
  err_print_all(stack, ERR_MODE_TRACEBACK, &story);
  fprintf(stderr, "snap: %s failed:\n%s", what, story != NULL ? story : "");
  err_reset_all(stack);
  return 1;
}

int main(int argc, char **argv) {
  const char *ccd_file, *output;
  HANDLE server = NULL, camera = NULL, images = NULL, picture;
  INT32 width = 0, height = 0, depth = 0;
  int status = 0;

  if (argc < 2 || argc > 3) {
    fprintf(stderr, "usage: snap CCD_FILE [OUTPUT]\n");
    return 2;
  }
  ccd_file = argv[1];
  output = argc == 3 ? argv[2] : "snap.img";

  /* The server boots the controller from the hardware file beside the CCD file. */
  server = server_new(ccd_file);
  if (server == NULL) return report_failure("starting the server");
  camera = camera_new(server, ccd_file);
  /* Mode 0 keeps the picture raw: every column as read, the reference columns included. */
  if (camera == NULL) {
    status = report_failure("setting up the camera");
  } else if (!camera_set_operation_mode(camera, 0) || !camera_expose_ccd(camera, EXPOSURE_MS)) {
    status = report_failure("exposing");
  } else if ((images = list_new()) == NULL || !camera_readout_ccd(camera, NULL, images)) {
    status = report_failure("reading out");
  } else {
    /* With no regions given, the whole chip is read into one image. */
    picture = list_get_nth_object(images, 1);
    if (!image_size(picture, &width, &height, &depth) || !image_write(picture, output))
      status = report_failure("writing the image");
    else
      printf("snap: %ld x %ld pixels of %ld bits written to %s\n", (long)width, (long)height,
             (long)depth, output);
  }

  if (images != NULL) image_list_delete(images);
  camera_delete(camera);
  server_delete(server);
  return status;
}
