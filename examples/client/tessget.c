/* tessget: prints parameters of tessard as PATH=VALUE lines, and with -s stores one first.
 *
 * A small C program built against the installed client library:
 *
 *   cc tessget.c $(pkg-config --cflags --libs tessard-client) -o tessget
 *   ./tessget root.Network.eth0.IPAddress root.Network.Hostname
 *   ./tessget -s root.Camera.Image.Brightness 70 root.Camera.Image.Brightness
 *
 * Exit status: 0 when every request succeeded, 1 when one was refused, 2 for a usage error,
 * 3 when the daemon cannot be reached.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tessard/tessclient.h>

/* Writes the value and lets the daemon write it to its backing file at once. */
#define SYNC_NOW 10

static int print_value(TessClient* client, const char* path) {
  char* value = NULL;
  int rc = tessclient_get(client, path, &value);
  if (rc != TESSCLIENT_OK) {
    fprintf(stderr, "tessget: %s: %s\n", path, tessclient_request_status_text(TESSCLIENT_GET, rc));
    return 1;
  }
  printf("%s=%s\n", path, value);
  free(value);
  return 0;
}

static int store_value(TessClient* client, const char* path, const char* value) {
  int rc = tessclient_set(client, path, value, SYNC_NOW);
  if (rc == TESSCLIENT_OK) return 0;
  fprintf(stderr, "tessget: %s: %s\n", path, tessclient_request_status_text(TESSCLIENT_SET, rc));
  return 1;
}

int main(int argc, char** argv) {
  int first = 1;
  if (argc > 1 && strcmp(argv[1], "-s") == 0) {
    if (argc < 4) {
      fprintf(stderr, "usage: tessget [-s PATH VALUE] [PATH...]\n");
      return 2;
    }
    first = 4;
  }
  if (argc < 2) {
    fprintf(stderr, "usage: tessget [-s PATH VALUE] [PATH...]\n");
    return 2;
  }
  TessClient* client = NULL;
  int rc = tessclient_connect(NULL, &client);
  if (rc != 0) {
    fprintf(stderr, "tessget: cannot reach tessard: %s\n", tessclient_status_text(rc));
    return 3;
  }
  int failed = first == 4 ? store_value(client, argv[2], argv[3]) : 0;
  for (int i = first; i < argc; i++) failed |= print_value(client, argv[i]);
  tessclient_close(client);
  return failed;
}
