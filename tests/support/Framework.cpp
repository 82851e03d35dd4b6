// The compiler needs a source with which it compiles the headers of the test framework.
