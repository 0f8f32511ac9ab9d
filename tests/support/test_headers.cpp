// Nothing of its own: the build compiles the tests' common headers along with it.
