/*
 * Command handler: slot 2 of the effect interface record.
 *
 * command(self, cmdCode, cmdSize, pCmdData, replySize, pReplyData) handles INIT, SET_CONFIG,
 * ENABLE, DISABLE, SET_PARAM, GET_PARAM, SET_DEVICE, SET_AUDIO_MODE and GET_CONFIG; the
 * reverse-stream, auxiliary-channel and offload codes (12, 15, 16, 17, 18, 20) return -38 and
 * write nothing; every other code is accepted and ignored (result 0, no reply). A null handle
 * or a released instance gives -22 for every code; a failed check -22 (ENABLE/DISABLE in the
 * wrong state -38) with nothing changed. Results of the operation itself travel in the reply
 * word.
 *
 * Private parameters (one 32-bit id at byte 12, psize 4, value from byte 16):
 *   100 SET_PARAM  the client parameter block, at least 292 bytes (vsize). A shorter block is
 *                  refused with reply word -22 and a WARN line; nothing is stored or applied.
 *                  The instance keeps exactly one block (the first 292 bytes); the stored copy
 *                  is what the wrapper receives, now and whenever a new wrapper is made.
 *   900 SET_PARAM  bypass: 16-bit value when vsize is 2, else 32-bit; non-zero is on.
 *   201 GET_PARAM  status text in a value area of 1024 bytes (reply size 1040). A smaller
 *                  reply buffer gets the text cut to fit, NUL-terminated, and vsize and
 *                  *replySize say how much was written.
 * SET_PARAM with another id is accepted and ignored; GET_PARAM with another id answers the
 * 16-byte header with status -22 and vsize 0. psize other than 4 is refused in the reply's
 * status (SET_PARAM: reply word -22, nothing changed).
 * GET_CONFIG (14) copies the stored configuration (the last accepted one, or the default of a
 * new instance) into a reply of exactly sizeof(effect_config_t) bytes, else -22.
 *
 * Reply buffers: nothing is ever written through a null pointer or beyond *replySize bytes.
 * SET_CONFIG, ENABLE and DISABLE need a 4-byte reply and GET_PARAM at least 20 bytes, else -22.
 * SET_PARAM refuses a null reply buffer and writes its status word only where *replySize has
 * room. INIT, SET_DEVICE and SET_AUDIO_MODE also work with null reply pointers or a reply
 * size of 0 and then simply write no reply word.
 * Command buffers: nothing is read beyond cmdSize bytes. SET_PARAM and GET_PARAM shorter than
 * the header and the id (16 bytes) are refused with -22; a SET_PARAM whose value is not all
 * there (vsize larger than the bytes after the id) takes only the bytes present, so a block
 * cut short and a bypass word cut short get reply word -22 and change nothing.
 * An allocation failure refuses the command (reply word -22) and keeps the old state.
 *
 * Where Android's callers need more than the older effect conventions give, the front end
 * follows the callers (each point stated here once):
 *  - Disable phase: after DISABLE, process returns 0 while its fade back to the dry signal runs
 *    and -61 only from the call in which the fade ends (at once for an instance that was not
 *    heard). AudioFlinger takes the first -61 after DISABLE as the end: it sends RESET and stops
 *    calling the effect, so an earlier -61 would cut every fade-out into an audible step.
 *  - GET_CONFIG answers with the stored configuration, and a new instance stores a default one
 *    (48 kHz, stereo, 32-bit, input READ, output ACCUMULATE, every mask bit) that SET_CONFIG
 *    accepts unchanged without making the instance configured. The effect HAL takes the reply
 *    as the configuration whenever the command returns 0, and VTS reads it right after INIT,
 *    checks its channel mask and sets it back expecting success.
 *  - Codes 12, 15, 16, 17, 18 and 20 return -38 (-ENOSYS) instead of being ignored: for 12, 18
 *    and 20 the HAL passes a status word it does not initialise and, on 0, reports whatever it
 *    holds; for 15, 16 and 17 it would report success with an empty answer. The HAL's interface
 *    asks for NOT_SUPPORTED from an effect without these features.
 *  - GET_PARAM for an unknown id answers status -22 with vsize 0 instead of status 0: Android's
 *    Java layer copies vsize bytes of any reply with status 0 into the app's array, bytes this
 *    effect never wrote.
 *  - SET_PARAM with psize other than 4 is refused instead of read at byte 16: the Java API's
 *    int-array form sends two-word keys, whose value starts 4 bytes later, and would otherwise
 *    be told that a value read from the wrong place was applied.
 *  - No allocation after configuration: SET_CONFIG sizes the working buffers from its
 *    buffer.frameCount, and process grows them only for a call longer than any before, never
 *    reallocating when the framework switches between block sizes it has used (fast tracks,
 *    offload transitions and route changes do so during playback).
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
