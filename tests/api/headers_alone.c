/* Nothing to run: the program is built of one source for each public header, so every header compiles alone. */
int
main (void)
{
  return 0;
}
