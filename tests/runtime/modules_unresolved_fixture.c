/* A shared object with a function reference nothing defines: it loads only
 * when references are bound lazily. */
extern int kyrt_fixture_function_nobody_defines(void);

int kyrt_fixture_calls_the_missing_function(void) {
  return kyrt_fixture_function_nobody_defines();
}
