#include <cjson/cJSON.h>
#include <stdlib.h>
#include <string.h>

#include "vemo/util.h"

namespace {
void *hook_malloc(size_t size) { return malloc(size); }
void hook_free(void *pointer) { free(pointer); }
}  // namespace

extern "C" VEMO_API char *copy_string(const char *text) {
  if (text == nullptr) return nullptr;
  size_t size = strlen(text) + 1;
  char *copy = static_cast<char *>(malloc(size));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, size);
  return copy;
}

extern "C" VEMO_API void cjson_hook_init(void) {
  cJSON_Hooks hooks;
  hooks.malloc_fn = hook_malloc;
  hooks.free_fn = hook_free;
  cJSON_InitHooks(&hooks);
}
