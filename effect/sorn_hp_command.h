/*
 * Command handler: slot 2 of the effect interface record.
 *
 * command(self, cmdCode, cmdSize, pCmdData, replySize, pReplyData) handles INIT, SET_CONFIG,
 * ENABLE, DISABLE, SET_PARAM, GET_PARAM, SET_DEVICE and SET_AUDIO_MODE; every other code is
 * accepted and ignored (result 0, no reply). A null handle or a released instance gives -22
 * for every code; a failed check -22 (ENABLE/DISABLE in the wrong state -38) with nothing
 * changed. Results of the operation itself travel in the reply word.
 *
 * Private parameters (one 32-bit id at byte 12, value from byte 16):
 *   100 SET_PARAM  the client parameter block, at least 292 bytes (vsize). A shorter block is
 *                  refused with reply word -22 and a WARN line; nothing is stored or applied.
 *                  The instance keeps exactly one block (the first 292 bytes); the stored copy
 *                  is what the wrapper receives, now and whenever a new wrapper is made.
 *   900 SET_PARAM  bypass: 16-bit value when vsize is 2, else 32-bit; non-zero is on.
 *   201 GET_PARAM  status text in a value area of 1024 bytes (reply size 1040). A smaller
 *                  reply buffer gets the text cut to fit, NUL-terminated, and vsize and
 *                  *replySize say how much was written.
 *
 * Reply buffers: nothing is ever written through a null pointer or beyond *replySize bytes.
 * SET_CONFIG, ENABLE and DISABLE need a 4-byte reply and GET_PARAM at least 20 bytes, else -22.
 * SET_PARAM refuses a null reply buffer and writes its status word only where *replySize has
 * room. INIT, SET_DEVICE and SET_AUDIO_MODE also work with null reply pointers or a reply
 * size of 0 and then simply write no reply word. psize is not examined for SET_PARAM.
 * Command buffers: nothing is read beyond cmdSize bytes. SET_PARAM and GET_PARAM shorter than
 * the header and the id (16 bytes) are refused with -22; a SET_PARAM whose value is not all
 * there (vsize larger than the bytes after the id) takes only the bytes present, so a block
 * cut short and a bypass word cut short get reply word -22 and change nothing.
 * An allocation failure refuses the command (reply word -22) and keeps the old state.
 *
 * Runs on the command path: may allocate, log and design filters (through the wrapper). Never
 * locks; the framework never runs command and process of one instance at the same time.
 */
#ifndef SORN_EFFECT_SORN_HP_COMMAND_H
#define SORN_EFFECT_SORN_HP_COMMAND_H

#include <stdint.h>

#include <hardware/audio_effect.h>

#include "platform/sorn_export.h"

#define SORN_HP_PARAM_BLOCK 100
#define SORN_HP_PARAM_STATUS 201
#define SORN_HP_PARAM_BYPASS 900

SORN_EXTERN_C_BEGIN

SORN_EXPORT int32_t command(effect_handle_t self, uint32_t cmdCode, uint32_t cmdSize,
                            void *pCmdData, uint32_t *replySize, void *pReplyData);

SORN_EXTERN_C_END

#endif /* SORN_EFFECT_SORN_HP_COMMAND_H */
