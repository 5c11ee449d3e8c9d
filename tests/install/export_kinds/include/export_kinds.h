// Classes and variables in the library's namespace that make the compiler emit a symbol of
// every special kind: typeinfo and its name, vtables, VTTs (virtual bases), non-virtual,
// virtual and covariant-return thunks of const, volatile and reference-qualified members, a
// guard variable and a TLS init function. Linked with the library's version script, every one
// of them must be exported.
#ifndef KELVO_TESTS_EXPORT_KINDS_H_
#define KELVO_TESTS_EXPORT_KINDS_H_

#include <string>

// Exported the way the library exports its classes (it is built with hidden visibility too).
#define KELVO_EXPORT __attribute__((visibility("default")))

namespace mosk {
namespace kelvo {

struct KELVO_EXPORT KindsBase {
  virtual ~KindsBase();
  virtual KindsBase* clone() const;
  virtual int get() const&;
  virtual int put() &&;
  virtual int poll() volatile;
};

struct KELVO_EXPORT KindsLeft : virtual KindsBase {
  ~KindsLeft() override;
  KindsLeft* clone() const override;
  int get() const& override;
};

struct KELVO_EXPORT KindsRight : virtual KindsBase {
  ~KindsRight() override;
  int put() && override;
};

struct KELVO_EXPORT KindsOther {
  virtual ~KindsOther();
  virtual int other() const;
};

struct KELVO_EXPORT KindsDiamond : KindsLeft, KindsRight, KindsOther {
  ~KindsDiamond() override;
  KindsDiamond* clone() const override;
  int get() const& override;
  int poll() volatile override;
  int other() const override;
};

// Dynamically initialised: a TLS init function.
KELVO_EXPORT extern thread_local std::string kindsPerThread;

// Dynamically initialised static member of a template: a guard variable.
template <typename T>
struct KELVO_EXPORT KindsHolder {
  static inline std::string value = std::to_string(sizeof(T));
};
extern template struct KindsHolder<int>;

}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_TESTS_EXPORT_KINDS_H_
