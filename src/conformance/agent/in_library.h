// Whether a thread is in the library or in the module. A library may call its own functions,
// which leads to the probe too; such a call is not the module's, and is forwarded unchanged.
#ifndef KAVRI_CONFORMANCE_AGENT_IN_LIBRARY_H
#define KAVRI_CONFORMANCE_AGENT_IN_LIBRARY_H

namespace kavri::conformance {

inline thread_local constinit bool isInLibrary = false;

// From here to the end of the block.
class InLibrary {
  public:
    explicit InLibrary(bool is) : before_(isInLibrary) { isInLibrary = is; }
    InLibrary(const InLibrary&) = delete;
    InLibrary& operator=(const InLibrary&) = delete;
    ~InLibrary() { isInLibrary = before_; }

  private:
    bool before_;
};

}  // namespace kavri::conformance

#endif
