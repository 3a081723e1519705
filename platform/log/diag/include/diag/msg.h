/*
 * Host stand-in for the modem diagnostics library: session set-up and the message call with its
 * constant descriptor record. Served on a host by the stand-in kelr_host_diag.
 */
#ifndef KELR_PLATFORM_DIAG_MSG_H
#define KELR_PLATFORM_DIAG_MSG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Diagnostics mask bits of a message (its importance). */
#define MSG_LEGACY_LOW 0x01
#define MSG_LEGACY_MED 0x02
#define MSG_LEGACY_HIGH 0x04
#define MSG_LEGACY_ERROR 0x08
#define MSG_LEGACY_FATAL 0x10

/* Where a message comes from and how it is printed; one per call site, filled once. */
typedef struct {
    uint16_t line;
    uint16_t ss_id;
    uint32_t ss_mask;
} msg_desc_type;

typedef struct {
    msg_desc_type desc;
    const char* fmt;
    const char* fname;
} msg_const_type;

/* Opens the diagnostics session; returns nonzero on success. */
int Diag_LSM_Init(uint8_t* pIEnv);
/* Closes the diagnostics session; returns nonzero on success. */
int Diag_LSM_DeInit(void);
/* Formats the descriptor's format with the arguments and sends the line. */
void msg_sprintf(const msg_const_type* const_blk, ...);

#ifdef __cplusplus
}
#endif

#endif
