/* Builds one message with the installed library and prints it. */
#include <stdio.h>
#include <zorv2000/zorv2000.h>

int main(void) {
  CGenStr message;
  int rc;
  if (!CGenStrInit(&message)) return 1;
  rc = ZorvClientCreateMessageBrokerCommandStr("PING", &message);
  if (rc == 0) printf("%s", CGenStrC_Str(&message));
  CGenStrDelete(&message);
  return rc;
}
