// Built without CMake, from pkg-config's flags alone:
//   g++ -std=c++17 pkgconfig.cpp $(pkg-config --cflags --libs tavexpression)
#include <tavexpression.h>
#include <tavexpression_version.h>

#include <iostream>

int main() {
  TavEnv env;
  TavIntVar n(env, 0, 9, "n");
  TavSolution values(env);
  values.setValue(n, 7);
  std::cout << "tavexpression " << TAV_VERSION_MAJOR << "." << TAV_VERSION_MINOR << "." << TAV_VERSION_PATCH
            << " through pkg-config: n % 4 = " << values.getValue(n % 4) << "\n";
  env.end();
  return 0;
}
