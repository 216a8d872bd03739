# The records of peers_records.hpp for Cap'n Proto. A shared reference is the package's number.
@0xc7b1a2d35f0e4968;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::cp");

struct Dependency {
  flags @0 :UInt32;
  target @1 :UInt32;
  constraint @2 :Text;
}

struct Package {
  number @0 :UInt32;
  name @1 :Text;
  version @2 :Text;
  summary @3 :Text;
  dependencies @4 :List(Dependency);
}

struct Catalogue {
  packages @0 :List(Package);
}
