#include "kelmor/status.h"

XTOOMsg::~XTOOMsg() = default;

XTOOStatus::XTOOStatus(int status, bool flag) : XTOOStatus(status, nullptr, flag) {}

XTOOStatus::XTOOStatus(int status, const char* text, bool) : XTOOMsg(text), status_(status) {}

XTOOStatus::~XTOOStatus() = default;

void XTOOStatus::Clear() {
  status_ = 0;
  error_ = false;
  ClearMessage();
}
