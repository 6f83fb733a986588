/* Camera server packets: the one message buffer through which the library talks to the
 * controller's camera server, over any transport that moves 16-bit words. */
#ifndef TVX_CSP_H
#define TVX_CSP_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* A packet: destination, source, control code and up to 197 parameters. */
#define CSP_PACKET_WORDS 200
#define CSP_HEADER_WORDS 3
#define CSP_MAX_PARAMS 197
/* Message failures after which a packet object gives up. */
#define CSP_MAX_FAILURES 3

/* The transport: one 16-bit value, or a count of them, each way. */
typedef BOOL (*csp_read_size_fn)(HANDLE link, INT16 *value);
typedef BOOL (*csp_read_words_fn)(HANDLE link, INT16 *words, INT16 count);
typedef BOOL (*csp_write_size_fn)(HANDLE link, INT16 value);
typedef BOOL (*csp_write_words_fn)(HANDLE link, const INT16 *words, INT16 count);

/* The packet object's record, reached by locking its handle. */
typedef struct csp {
  INT16 packet[CSP_PACKET_WORDS]; /* [0] destination, [1] source, [2] control, [3..] parameters */
  INT16 packet_size;              /* words in use, header included: 0 .. 200 */
  INT16 params_size;              /* parameters of the last packet received; 0 after a failure */
  INT16 address;                  /* this end's own address, the source of every packet sent */
  INT32 failures;
  HANDLE link;
  csp_read_size_fn read_size;
  csp_read_words_fn read_words;
  csp_write_size_fn write_size;
  csp_write_words_fn write_words;
  BYTE verbose;
} csp;

TVX_API HANDLE csp_new(HANDLE link, INT16 address, csp_read_size_fn read_size,
                       csp_read_words_fn read_words, csp_write_size_fn write_size,
                       csp_write_words_fn write_words);
TVX_API BOOL csp_ctor(HANDLE packets, HANDLE link, INT16 address, csp_read_size_fn read_size,
                      csp_read_words_fn read_words, csp_write_size_fn write_size,
                      csp_write_words_fn write_words);
TVX_API BOOL csp_delete(HANDLE packets);
TVX_API BOOL csp_print(HANDLE packets, FILE *stream);
TVX_API BOOL csp_set_verbose(HANDLE packets, BOOL verbose);
TVX_API BOOL csp_new_address(HANDLE packets, INT16 address);

/* Parameter access; the index is not checked (keep within 0 .. 196). */
TVX_API BOOL csp_set_msg_param(HANDLE packets, INT16 index, INT16 value);
TVX_API BOOL csp_get_msg_param(HANDLE packets, INT16 index, INT16 *value);
TVX_API BOOL csp_get_params_size(HANDLE packets, INT16 *size);
TVX_API BOOL csp_get_control(HANDLE packets, INT16 *control);

TVX_API BOOL csp_copy_BYTE_params(HANDLE packets, const BYTE *bytes, INT16 count, INT16 offset);
TVX_API BOOL csp_copy_INT16_params(HANDLE packets, const INT16 *words, INT16 count, INT16 offset);
TVX_API BOOL csp_copy_BYTE_to_INT16_params(HANDLE packets, const BYTE *bytes, INT16 count,
                                           INT16 offset);
TVX_API BOOL csp_copy_params_to_INT16s(HANDLE packets, INT16 *words, INT16 count);

TVX_API BOOL csp_send_packet(HANDLE packets);
TVX_API BOOL csp_receive_packet(HANDLE packets);
/* Sends the parameters already in place under a fresh header. */
TVX_API BOOL csp_message_out(HANDLE packets, INT16 destination, INT16 control, INT16 count);
TVX_API BOOL csp_message_in(HANDLE packets);

TVX_API BOOL csp_expect_destination(HANDLE packets);
TVX_API BOOL csp_expect_control(HANDLE packets, INT16 control);
TVX_API BOOL csp_expect_n_params(HANDLE packets, INT16 low, INT16 high);
TVX_API BOOL csp_expected(HANDLE packets, INT16 control, INT16 count);
TVX_API BOOL csp_expected2(HANDLE packets, INT16 control, INT16 low, INT16 high);

TVX_END_DECLS

#endif
