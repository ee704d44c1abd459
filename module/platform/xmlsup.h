/* xmlsup.h - tag values out of XML text.
 *
 * Conventions: texts are UTF-8; the value copied out is the element's text
 * with the NUL; status 0 copied, 2 no such occurrence, 5 bad argument,
 * 16 output too small (*size then holds the size needed).
 */
#ifndef KELP_PLATFORM_XMLSUP_H
#define KELP_PLATFORM_XMLSUP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies the text of the occurrence-th (0-based) element named `tag` in
 * xml[0..xmlLength) into out. *size in: capacity of out, out: bytes written.
 * The plug-in calls it as (0, tag, 1, occurrence, 1, &size, out, 0, null,
 * xml, length): the four mode words and the context pointer select "element
 * text by name, searched in the whole text", the only mode the library
 * offers; other values answer 5. */
uint32_t XMLSupGetXMLMemData(uint32_t mode0, const char *tag, uint32_t mode1, uint32_t occurrence,
                             uint32_t mode2, uint32_t *size, char *out, uint32_t mode3,
                             const void *context, const char *xml, uint32_t xmlLength);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_XMLSUP_H */
