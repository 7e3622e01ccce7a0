#include "vemo/codes.h"

extern "C" VEMO_API const char *vemo_strerror(int code) {
  switch (code) {
    case VEMO_OK: return "success";
    case VEMO_ERR_NO_ANSWER: return "no answer: a handler left its answer empty, or a record was missing";
    case VEMO_ERR_NO_SERVER: return "the cloud-service daemon is not running (no socket)";
    case VEMO_ERR_DISCONNECTED: return "not connected: connecting or sending failed, or the client was torn down";
    case VEMO_ERR_PEER_CLOSED: return "the daemon closed the connection";
    case VEMO_ERR_NOT_FOUND: return "unknown id: never sent, already collected or expired";
    case VEMO_ERR_NOT_ARRIVED: return "the response has not arrived yet";
    case VEMO_ERR_RECV_TIMEOUT: return "nothing received within the timeout";
    case VEMO_ERR_NO_RESOURCE: return "out of resources (memory, threads, sockets)";
    case VEMO_ERR_BAD_FORMAT: return "malformed message or frame";
    case VEMO_ERR_SHORT_READ: return "a frame came short or its receive failed";
    case VEMO_ERR_TIMEOUT: return "timed out waiting for the daemon";
    case VEMO_ERR_NO_REQUEST_ID: return "a cloud request without its id";
    case VEMO_ERR_NO_HANDLER: return "unknown method, or no handler registered for it";
    case VEMO_ERR_MISSING_KEY: return "a required key is missing from a received message";
    case VEMO_ERR_INVALID_ARG: return "invalid argument";
    default: return "unknown code";
  }
}
