/* What headers_in_c.c found. */
#ifndef KAVRI_TESTS_HEADERS_IN_C_H
#define KAVRI_TESTS_HEADERS_IN_C_H

#include <kavri/ipc.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

size_t cOptionsBytes(void);
size_t cRequestBytes(void);
size_t cStatusBytes(void);
kavri_core_status cSend(kavri_core_ipc_initiator* initiator);

#ifdef __cplusplus
}
#endif

#endif
