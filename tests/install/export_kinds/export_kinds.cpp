// Definitions for export_kinds.h, and a class outside the library's namespace whose symbols
// the version script must keep local although the compiler gives them default visibility (as
// it does for instantiations of the standard library's templates).
#include "export_kinds.h"

#include <string>

namespace mosk {
namespace kelvo {

KindsBase::~KindsBase() = default;
KindsBase* KindsBase::clone() const { return nullptr; }
int KindsBase::get() const& { return 1; }
int KindsBase::put() && { return 2; }
int KindsBase::poll() volatile { return 3; }

KindsLeft::~KindsLeft() = default;
KindsLeft* KindsLeft::clone() const { return nullptr; }
int KindsLeft::get() const& { return 4; }

KindsRight::~KindsRight() = default;
int KindsRight::put() && { return 5; }

KindsOther::~KindsOther() = default;
int KindsOther::other() const { return 6; }

KindsDiamond::~KindsDiamond() = default;
KindsDiamond* KindsDiamond::clone() const { return nullptr; }
int KindsDiamond::get() const& { return 7; }
int KindsDiamond::poll() volatile { return 8; }
int KindsDiamond::other() const { return 9; }

thread_local std::string kindsPerThread = std::to_string(sizeof(KindsDiamond));

template struct KindsHolder<int>;

}  // namespace kelvo
}  // namespace mosk

namespace __attribute__((visibility("default"))) outside {

  template <typename T>
  struct Box {
    virtual ~Box() = default;
    T value{};
  };
  template struct Box<mosk::kelvo::KindsOther*>;

}  // namespace outside
