// A shared object that loads fine and registers no plugin: what a host gets
// when it is pointed at the wrong library.
extern "C" int aclTestNoPluginValue() {
  return 42;
}
