// The list of temporary report files to delete when the applet next starts ("\NotepadTemp": string
// values named "1", "2", ... holding file paths). The registry layer provides the real store; until
// one is installed, a process-local store stands in (also what tests use).
#pragma once
#include <cstdint>
#include <map>
#include <string>

class TempFileList {
 public:
  virtual ~TempFileList() = default;
  // The value at index (from 0): its name and the path it holds. False past the last value.
  virtual bool Value(std::uint32_t index, std::string& name, std::string& path) = 0;
  virtual bool Set(const std::string& name, const std::string& path) = 0;   // adds or replaces a value
  virtual void DeleteKey() = 0;                                              // forgets every value
};

// A TempFileList in memory, values in name order.
class MemoryTempFileList : public TempFileList {
 public:
  bool Value(std::uint32_t index, std::string& name, std::string& path) override;
  bool Set(const std::string& name, const std::string& path) override;
  void DeleteKey() override;
  std::size_t Size() const { return values_.size(); }

 private:
  std::map<std::string, std::string> values_;
};

// The store in use (the process-local one until SetTempFileList installs another).
TempFileList& CurrentTempFileList();
void SetTempFileList(TempFileList* list);   // nullptr: back to the process-local store
