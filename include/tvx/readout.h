/* Reading out the CCD: regions fitted to the binning grid, read sequences for several regions,
 * the block stream of pixel words from the adapter, unscrambling a read-sequence readout, and
 * whole acquisitions (one readout, a series of frames, shuffle mode). */
#ifndef TVX_READOUT_H
#define TVX_READOUT_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* Entries of a read sequence: value << 4 | code. */
#define RDSEQ_SHIFT 0  /* shift the y binning's lines into the serial register */
#define RDSEQ_SKIP 1   /* skip binned pixels along the row */
#define RDSEQ_READ 2   /* read binned pixels along the row */
#define RDSEQ_REPEAT 3 /* repeat the following group; the next word counts the group's entries */
#define RDSEQ_SKIP_ROWS 4

/* The readout block stream: what atlink_testread's status says. */
#define TESTREAD_OK (-1)
#define TESTREAD_UNSUPPORTED 0
#define TESTREAD_ABORTED 1 /* the application asked for an abort */
#define TESTREAD_SYNC_SIZE 2
#define TESTREAD_SIZE_RANGE 3
#define TESTREAD_NO_ROOM 4
#define TESTREAD_SYNC_DATA 5
#define TESTREAD_NOT_EVEN 6
#define TESTREAD_NOT_QUAD 7

/* Reads `words` words of pixel data in blocks of min_block .. max_block words into `buffer`,
 * unpacked by `data_mode` (0, 1, 5, 9, 10, 14 or 18). */
TVX_API BOOL atlink_testread(HANDLE link, WORD *buffer, INT32 words, INT32 min_block,
                             INT32 max_block, INT32 *status, INT32 *words_read, INT32 data_mode,
                             INT16 const1, INT16 const2, INT16 const3);

/* Regions and read sequences. */
TVX_API BOOL server_set_readout_region(HANDLE server, HANDLE sysparams, HANDLE region, HANDLE out);
TVX_API BOOL server_checked_readout_region(HANDLE server, HANDLE regions, HANDLE sysparams,
                                           HANDLE out);
TVX_API BOOL server_select_first_region(HANDLE server, HANDLE sysparams, HANDLE regions,
                                        HANDLE out);
TVX_API BOOL server_check_regions(HANDLE server, HANDLE sysparams, HANDLE regions);
TVX_API BOOL cs71_create_ccd_rdseq2(HANDLE regions, HANDLE map, INT32 x_binning, INT32 y_binning,
                                    INT32 adc_mode, HANDLE sequence, INT32 *pixel_count);
TVX_API BOOL server_multiple_regions(HANDLE server, HANDLE images, HANDLE regions, HANDLE shadow,
                                     INT32 x_binning, INT32 y_binning);

/* The data stream. */
TVX_API BOOL server_data_mode(HANDLE server, INT32 *mode);
TVX_API BOOL server_execute_readout(HANDLE server, HANDLE region, HANDLE image);
TVX_API BOOL server_grab(HANDLE server, INT32 pixel_count, HANDLE image);
TVX_API BOOL server_collect_WORD16(HANDLE server);
TVX_API BOOL server_from_link0_INT16(HANDLE server);

/* Unscrambling. */
TVX_API BOOL server_scramble_to_shadow(HANDLE server, HANDLE scramble, HANDLE sequence,
                                       HANDLE shadow);
TVX_API BOOL server_unscramble_all_images(HANDLE server, HANDLE regions, HANDLE images,
                                          HANDLE shadow, HANDLE sequence, HANDLE scramble,
                                          HANDLE sysparams);
TVX_API BOOL server_unscramble_all_frames(HANDLE server, HANDLE regions, HANDLE image_lists,
                                          HANDLE shadow, HANDLE sequence, HANDLE scrambles,
                                          HANDLE sysparams);

/* Acquisition. */
TVX_API BOOL server_readout_ccd(HANDLE server, HANDLE regions, HANDLE images, HANDLE sysparams);
TVX_API BOOL server_expose_and_readout_ccd(HANDLE server, const char *program, HANDLE sysparams);
TVX_API BOOL server_expose_ccd(HANDLE server, INT32 milliseconds);
/* Returns 0 to end the grab loop. */
typedef BYTE (*server_grab_fn)(void *argument);
TVX_API BOOL server_shuffle_mode(HANDLE server, HANDLE region, HANDLE image, INT32 exposure_time,
                                 INT32 x_binning, INT32 y_binning, server_grab_fn user_function,
                                 void *user_argument);
TVX_API BOOL server_empty_all_frames(HANDLE server, HANDLE image_lists);
TVX_API BOOL server_allocate_all_frames(HANDLE server, HANDLE regions, HANDLE image_lists,
                                        HANDLE sysparams);
TVX_API BOOL server_allocate_all_images(HANDLE server, HANDLE regions, HANDLE images,
                                        HANDLE sysparams);
TVX_API BOOL server_allocate_all_scrambles(HANDLE server, HANDLE scrambles, INT32 frames,
                                           INT32 pixel_count);
TVX_API BOOL server_readout_all_mrframes(HANDLE server, HANDLE scrambles, INT32 pixel_count,
                                         HANDLE sysparams);
TVX_API BOOL server_readout_all_srframes(HANDLE server, HANDLE image_lists, INT32 width,
                                         INT32 height, HANDLE sysparams);

/* The readout drivers of the controller. `frames` is a list of images, one per frame. */
TVX_API BOOL cs71_ccd_read(HANDLE controller, HANDLE link, HANDLE frames, INT32 delay,
                           INT32 data_mode, INT16 const1, INT16 const2, INT16 const3);
TVX_API BOOL cs71_grab(HANDLE controller, HANDLE link, HANDLE image, INT32 data_mode, INT16 const1,
                       INT16 const2, INT16 const3);
TVX_API BOOL cs71_ccd_read1(HANDLE controller, HANDLE link, HANDLE image, INT32 data_mode,
                            INT16 const1, INT16 const2, INT16 const3);
TVX_API BOOL cs71_ccd_read2(HANDLE controller, HANDLE link, HANDLE image, INT32 count, INT32 delay,
                            INT32 data_mode, INT16 const1, INT16 const2, INT16 const3);

TVX_END_DECLS

#endif
