/* The public header from plain C, linked against the shared library. No
 * instrument is involved: /dev/null stands in for a port that is not a
 * serial line. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zeltocom.h"

static int failures = 0;

static void expect_int(const char* what, int got, int wanted) {
  if (got != wanted) {
    printf("FAIL %s: %d, wanted %d\n", what, got, wanted);
    ++failures;
  }
}

static void expect_text(const char* what, const char* got, const char* wanted) {
  if (strcmp(got, wanted) != 0) {
    printf("FAIL %s: \"%s\", wanted \"%s\"\n", what, got, wanted);
    ++failures;
  }
}

int main(void) {
  char text[512];
  setenv("ZELTOCOM_PORTS", "/dev/null", 1);

  ZeltoCom_GetLibraryVersion(text);
  expect_text("version", text, "v" ZELTOCOM_VERSION_STRING);
  expect_int("enumerate", ZeltoCom_EnumPorts(), 1);
  expect_int("available", ZeltoCom_IsPortAvailable("/dev/null"), 1);
  expect_int("invalid rate", ZeltoCom_Open("/dev/null", 1234), -1);
  expect_text("invalid rate text", ZeltoCom_GetError_Description(text), "Invalid baud-rate");
  expect_int("not a serial line", ZeltoCom_Open("/dev/null", 57600), 0);
  expect_text("open text", ZeltoCom_GetError_Description(text), "Unable to open port");
  expect_int("close all", ZeltoCom_CloseAll(), 1);
  expect_int("set time-out", ZeltoCom_SetResponseTimeout(1000), 1);

  if (failures == 0) printf("C interface: all checks passed\n");
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
