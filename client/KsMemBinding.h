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
