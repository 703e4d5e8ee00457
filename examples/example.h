/* What the examples share: choosing the ports, and reporting failures. */
#ifndef ZELTOCOM_EXAMPLE_H
#define ZELTOCOM_EXAMPLE_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zeltocom.h"

#define EXAMPLE_MAX_PORTS 64
#define EXAMPLE_ANSWER_BYTES 4096

typedef char example_path[ZELTOCOM_DEVICE_PATH_SIZE];

/* The ports are the paths given (`count` of them), or without any those of
 * ZELTOCOM_PORTS ("path1;path2"). Either way ZELTOCOM_PORTS ends up naming
 * exactly them, so the library touches no other serial device of the
 * machine. Returns the number of ports, their paths in `paths`; 0 when none
 * was named. */
static inline int example_ports(int count, char** given, example_path* paths) {
  static char list[EXAMPLE_MAX_PORTS * sizeof(example_path)];
  int n = 0;
  if (count > 0) {
    list[0] = '\0';
    for (int i = 0; i < count && i < EXAMPLE_MAX_PORTS; ++i) {
      if (i > 0) strcat(list, ";");
      strncat(list, given[i], sizeof(example_path) - 1);
    }
    setenv("ZELTOCOM_PORTS", list, 1);
  }
  const char* named = getenv("ZELTOCOM_PORTS");
  if (named == NULL) return 0;
  snprintf(list, sizeof list, "%s", named);
  for (char* path = strtok(list, ";"); path != NULL && n < EXAMPLE_MAX_PORTS;
       path = strtok(NULL, ";")) {
    snprintf(paths[n++], sizeof(example_path), "%s", path);
  }
  ZeltoCom_EnumPorts();
  /* Answers longer than the examples' buffers are cut, never overrun them. */
  ZeltoCom_SetResponseBufferSize(EXAMPLE_ANSWER_BYTES);
  return n;
}

/* Prints what failed and why; returns whether `result` was a success. */
static inline int example_check(int result, const char* what) {
  if (result != 1) {
    char why[ZELTOCOM_ERROR_TEXT_SIZE];
    fprintf(stderr, "%s: %d, %s\n", what, result, ZeltoCom_GetError_Description(why));
  }
  return result == 1;
}

#endif
