/* os.h - what the module takes from the operating system beyond the C
 * library: Sleep. On Linux the runtime library supplies it. */
#ifndef KELP_PLATFORM_OS_H
#define KELP_PLATFORM_OS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sleeps ms milliseconds divided by the runtime's time scale. On a thread
 * started with SMThreadStart that is being stopped it returns at once. */
void Sleep(uint32_t ms);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_OS_H */
