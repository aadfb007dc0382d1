/* A program's own variables, or functions, of the names that the library exports. C, also valid C++. */
#include "names.h"

#ifdef __cplusplus
extern "C" {
#endif

int touched(void);

#ifdef FUNCTIONS
static int calls;
#  define DEFINE(name)  \
    double name(void);  \
    double name(void) { \
      return ++calls;   \
    }
FOR_EACH_NAME(DEFINE)
int touched(void) {
  return calls;
}
#else
#  ifndef STORAGE
#    define STORAGE /* or __thread */
#  endif
#  define DEFINE(name)          \
    extern STORAGE double name; \
    STORAGE double name = 1.5;
FOR_EACH_NAME(DEFINE)
#  define CHANGED(name) +(name != 1.5)
int touched(void) {
  return 0 FOR_EACH_NAME(CHANGED);
}
#endif

#ifdef __cplusplus
}
#endif
