/* The eight entries of the transport library (libKsMemBinding) through which every request
 * reaches the Model Event Manager service.
 *
 * The entries carry no handle: the transport keeps the exchange in progress itself. Every
 * result is a signed 32-bit integer, negative for a failure (KsMem_Init fails on anything but 0,
 * and KsMem_Receive returns -1 at the end of a reply). Texts are zero-terminated and passed
 * without a length. After a failure, KsMem_GetLastError tells what went wrong.
 *
 * Usable from C. The client library does not define these entries; it links the transport
 * library, so a program may supply its own definitions in its place.
 */
#ifndef KSMEM_CLIENT_KSMEMBINDING_H_
#define KSMEM_CLIENT_KSMEMBINDING_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the buffer that KsMem_Receive fills; a delivery never exceeds it. */
#define KSMEM_RECEIVE_BUFFER_SIZE 16384

/* What KsMem_Receive answers after the header block or the body of the stream form, and the
 * result that ends a reply. While a reply is read, every result from 0 up is a byte count. */
enum {
  KSMEM_STATUS_BODY_WANTED = 19,     /* send the body, end it, read the next status */
  KSMEM_STATUS_NO_MORE_TO_SEND = 20, /* go on to the reply */
  KSMEM_STATUS_GO_ON = 0,            /* go on to the reply, as 20 does */
  KSMEM_END_OF_REPLY = -1            /* after a status: a failure like any negative result */
};

/* Failure results. The client library maps each to an exception class (Client's
 * throwTransportFailure); any other failure result is unrecognised. */
enum {
  /* From KsMem_Init alone, which fails on anything but 0: a fault of the connection, of the
   * protocol, of the run time. */
  KSMEM_ERR_INIT_CONNECTION = 1001,
  KSMEM_ERR_INIT_PROTOCOL = 1002,
  KSMEM_ERR_INIT_RUNTIME = 1003,
  /* From any entry. */
  KSMEM_ERR_UNKNOWN_CLIENT = -751,       /* the caller is not registered with the service */
  KSMEM_ERR_CONNECTION_HIGHEST = -2996,  /* -2996 to -2999: the connection to the service */
  KSMEM_ERR_CONNECTION_LOWEST = -2999,   /* failed; the client library tells them not apart */
  KSMEM_ERR_SERVICE_UNREACHABLE = -3001, /* no connection to the service, or it broke */
  KSMEM_ERR_NO_TEXT = -3002,             /* the client library's own: no text to hand over */
  KSMEM_ERR_SERVICE_REFUSED = -3009,     /* the service failed the request it got */
  KSMEM_ERR_TRANSPORT_FAULT = -3010,     /* the transport could not do its part */
  KSMEM_ERR_OUT_OF_TURN = -3016,         /* a call that does not fit the exchange */
  KSMEM_ERR_UNKNOWN_OPERATION = -3017,   /* Operation-Name names no operation */
  KSMEM_ERR_MALFORMED_REQUEST = -3099    /* the request cannot be served as sent */
};

typedef void* (*KsMemAllocFunc)(size_t);
typedef void (*KsMemFreeFunc)(void*);

int32_t KsMem_Init(KsMemAllocFunc allocate, KsMemFreeFunc release);
int32_t KsMem_Term(void);
int32_t KsMem_Send(const char* text);
int32_t KsMem_SendNoAck(const char* text);
int32_t KsMem_SendEOF(void);
int32_t KsMem_Receive(char* buffer); /* buffer of KSMEM_RECEIVE_BUFFER_SIZE bytes */
int32_t KsMem_Complete(void);
int32_t KsMem_GetLastError(const char** text);

#ifdef __cplusplus
}
#endif

#endif /* KSMEM_CLIENT_KSMEMBINDING_H_ */
