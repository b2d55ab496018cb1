/* Stands in for an IPC library that lacks the service entry points. */
int tarn_unrelated_symbol(void);
int tarn_unrelated_symbol(void) {
  return 0;
}
