// One part of the host: a function that is named like its target.
namespace parts {

const char* PART();

const char* PART() {
  return "the host's own";
}

}  // namespace parts
