/* A program of one's own, in C, built against ZeltoCom (the build tree's or
 * an installed one): the header it compiled with and the library it loaded
 * must be the same version. */
#include <stdio.h>
#include <string.h>

#include <zeltocom.h>

int main(void) {
  char version[16];
  ZeltoCom_GetLibraryVersion(version);
  printf("header %s, library %s\n", ZELTOCOM_VERSION_STRING, version);
  return strcmp(version, "v" ZELTOCOM_VERSION_STRING) == 0 ? 0 : 1;
}
