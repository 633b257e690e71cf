/* Engineering tools: amplifier registers, the live protection log, the register monitor, DSP
 * switches. They open the mixer of card 0 per call and print to the standard streams. */
#ifndef TVOXSP_REGTOOLS_H
#define TVOXSP_REGTOOLS_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/*
 * Register access through each channel's "AMP WR Registers" mailbox, on every channel (at most
 * two: a third ends the process). Each reads the register back and prints one line on standard
 * error: "<op> : 0x<reg> -- T: 0x<value>, B: 0x<value>,  ". Return 0, or 1 when the mixer does
 * not open.
 */
int32_t tervox_log_reg_write(uint32_t reg, uint32_t value);
int32_t tervox_log_reg_read(uint32_t reg);
/* Sets the bits of mask to those of value; writes only where that changes the register. */
int32_t tervox_log_reg_update_bits(uint32_t reg, uint32_t mask, uint32_t value);

/*
 * Switches on the protection firmware's live log on every amplifier and prints one line per
 * sample (every interval_ms, 1000 when below 1) on standard output and in
 * "/sdcard/Download/rtlog.txt" until SIGINT. Returns 0 after a run (its exit line says "OK" or
 * "Failed"), 1 when the mixer does not open or SIGINT cannot be caught, -1 when the file does not
 * open. Once a SIGINT has been handled in the process, later runs stop before their first sample.
 */
int32_t tervox_prot_rtlog(int32_t interval_ms);
/* The SIGINT handler of the log and the monitor: prints "shutdown" and stops them for good. */
void sig_handler(int32_t signum);

/* Reads every register of regs on every channel each interval_ms until SIGINT; 1 when SIGINT
 * cannot be caught, else 0. */
int32_t tervox_regs_monitor(const uint32_t *regs, size_t count, int32_t interval_ms);
/* Prints the channel labels on standard output. */
int32_t tervox_show_info(void);

/* Feeds both amplifiers from the audio port (bypass set) or from their DSP; name, when given,
 * limits the switch to controls whose name starts with it ("T", "B"). */
int32_t tervox_dsp_bypass(const char *name, int32_t bypass);
/* Mutes and disables both amplifiers. */
int32_t tervox_reload_firmware(void);
/* Selects and boots the protection firmware on both DSPs. */
int32_t tervox_boot_loader(void);
/* Exchanges the channels in the amplifier DSPs' channel balance; -22 when the mixer does not
 * open. Fits the context's channel_swap slot. */
int32_t tervox_vesk_channel_swap(int32_t swap);
/* Calls the context's channel_swap slot. */
int32_t tervox_channel_swap(int32_t swap);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_REGTOOLS_H */
