/**
 * What tavrix_jrpc shares with its white-box tests.
 */
#ifndef TAVRIX_INTERNAL_JRPC_SEAM_H
#define TAVRIX_INTERNAL_JRPC_SEAM_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Checks a client's request and replaces its id by the router's reply channel.
 *
 * @param text        the request as received
 * @param request_out receives the rewritten request; the caller releases it
 * @param channel_out receives the service channel, also when a later check fails; the caller releases it
 * @return 0; TAVRIX_ERR_GENERAL
 */
int tavrix_jrpc_router_process_msg(const char *text, char **request_out, char **channel_out);

#ifdef __cplusplus
}
#endif

#endif
