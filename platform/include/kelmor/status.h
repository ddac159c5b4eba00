#pragma once

/// Statuses, and the base classes of the platform's exceptions.

#include <string>

#define KELMOR_API __attribute__((visibility("default")))

/// A text.
class KELMOR_API CTOOString {
 public:
  CTOOString() = default;
  /// Copies `text`. Null counts as empty.
  explicit CTOOString(const char* text) : text_(text != nullptr ? text : "") {}

  /// Never null. Valid until this object is assigned to or destroyed.
  const char* c_str() const { return text_.c_str(); }

 private:
  std::string text_;
};

/// The base class of all exceptions: an error with a text for a person.
class KELMOR_API XTOOMsg {
 public:
  XTOOMsg(const XTOOMsg&) = default;
  XTOOMsg& operator=(const XTOOMsg&) = default;
  virtual ~XTOOMsg();

  /// The text, or "" if there is no text. Never null. Owned by this object.
  const char* ErrorMessage() const { return message_.c_str(); }

 protected:
  /// Copies `text`; null counts as empty.
  explicit XTOOMsg(const char* text) : message_(text) {}
  /// Invalidates earlier results of ErrorMessage().
  void ClearMessage() { message_ = CTOOString(); }

 private:
  CTOOString message_;
};

/// An error with a status and an optional text.
class KELMOR_API XTOOStatus : public XTOOMsg {
 public:
  /// A status without a text. `flag` is true if the status alone says what failed.
  XTOOStatus(int status, bool flag);
  /// A status with a text, which is copied. Null counts as empty.
  XTOOStatus(int status, const char* text, bool flag);
  XTOOStatus(const XTOOStatus&) = default;
  XTOOStatus& operator=(const XTOOStatus&) = default;
  ~XTOOStatus() override;

  /// 0 after Clear().
  int Status() const { return status_; }

  /// True until Clear() is called, also for status 0.
  bool IsError() const { return error_; }

  /// Resets the object to "no error": status 0 and no text.
  void Clear();

 private:
  int status_;
  bool error_ = true;
};
