#pragma once

/// Status values and the exception base of everything that fails on the platform.

#include <string>

#define KELMOR_API __attribute__((visibility("default")))

/// A text value.
class KELMOR_API CTOOString {
 public:
  CTOOString() = default;
  /// Copies `text`; null counts as empty.
  explicit CTOOString(const char* text) : text_(text != nullptr ? text : "") {}

  /// Never null; valid until this object is assigned to or destroyed.
  const char* c_str() const { return text_.c_str(); }

 private:
  std::string text_;
};

/// Base of all platform exceptions: something with a text for a person.
class KELMOR_API XTOOMsg {
 public:
  XTOOMsg(const XTOOMsg&) = default;
  XTOOMsg& operator=(const XTOOMsg&) = default;
  virtual ~XTOOMsg();

  /// The text, empty when there is none; never null. Owned by this object.
  const char* ErrorMessage() const { return message_.c_str(); }

 protected:
  /// Copies `text`; null counts as empty.
  explicit XTOOMsg(const char* text) : message_(text) {}
  /// What ErrorMessage() gave before is not valid any longer.
  void ClearMessage() { message_ = CTOOString(); }

 private:
  CTOOString message_;
};

/// A status number with an optional text.
class KELMOR_API XTOOStatus : public XTOOMsg {
 public:
  /// A status that carries no text. `flag` is true when the number alone tells what happened.
  XTOOStatus(int status, bool flag);
  /// A status with its own text, which is copied; null counts as empty.
  XTOOStatus(int status, const char* text, bool flag);
  XTOOStatus(const XTOOStatus&) = default;
  XTOOStatus& operator=(const XTOOStatus&) = default;
  ~XTOOStatus() override;

  /// 0 after Clear().
  int Status() const { return status_; }

  /// True from construction until Clear(), also for status 0: an exception is always an error.
  bool IsError() const { return error_; }

  /// Makes this "no error": status 0, no text.
  void Clear();

 private:
  int status_;
  bool error_ = true;
};
