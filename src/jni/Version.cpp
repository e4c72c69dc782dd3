// The version that the library's file carries, for the loader to compare with that of its jar
// before it loads the file, and for whoever finds the file:
//     strings libskiplistjni.so | grep skiplist-native
namespace {

[[gnu::used, gnu::retain]] constexpr char version[] = "skiplist-native version " SKIPLIST_VERSION;

}  // namespace
