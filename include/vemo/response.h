/*
 * vemo response list: cloud responses by request id, pending until they arrive, then kept for
 * timeout_ms from their arrival until collected.
 *
 * Conventions
 * - response_data_set_response copies the text; the entry's callback is then called with the
 *   caller's own text, on the calling thread, with no lock held.
 * - response_data_get_response stores a new heap text at *response (released with free()); the
 *   caller's pointer must hold NULL on entry and is not changed on failure.
 * - Any thread may call any operation except response_list_destroy, which must run last.
 * - Codes: VEMO_ERR_INVALID_ARG, VEMO_ERR_NO_RESOURCE, VEMO_ERR_NOT_FOUND, VEMO_ERR_NOT_ARRIVED.
 */
#ifndef VEMO_RESPONSE_H
#define VEMO_RESPONSE_H

#include <vemo/codes.h>
#include <vemo/export.h>
#include <vemo/vemo.h>

VEMO_BEGIN_DECLS

typedef struct response_list response_list_t;

VEMO_API response_list_t *response_list_init(void);
VEMO_API int response_data_add(response_list_t *list, int id, int timeout_ms, vemo_response_cb callback);
VEMO_API int response_data_set_response(response_list_t *list, int id, const char *response);
VEMO_API int response_data_get_response(response_list_t *list, int id, char **response);
VEMO_API void response_data_clear(response_list_t *list, int all);
VEMO_API void response_list_destroy(response_list_t *list);

VEMO_END_DECLS

#endif /* VEMO_RESPONSE_H */
