package stor.device.skiplist;

/**
 * Where the fields of maps and nodes lie in native memory.
 *
 * <pre>
 *   map    head ... tail ... topLevel ... bounds, chunks of the signposts
 *   bounds the first start of each chunk but the first, ascending
 *   chunk  count | 128 starts, ascending | the nodes that begin there
 *   node   ... | location | start, length | link 0 | link 1 ...
 * </pre>
 *
 * <p>The numbers are those that the library is built with, which makes sure of them
 * ({@code src/jni/NativeLayout.cpp}); and a library of another version is not loaded. Besides,
 * before {@link #IS_TRUSTED} is true, a map that is read here has answered as it does through the
 * native methods. All methods expect it to be true.
 *
 * <p>The caller is inside the map's guard. An address is a node's as long as the map does not
 * change.
 */
final class NativeLayout {
    /** Whether memory can be read here, and has been found as expected; if not, nobody reads. */
    static final boolean IS_TRUSTED;

    /** Turns it off, for a comparison; what is found is the same. */
    static final String PROPERTY = "skiplist.readInPlace";

    private static final int POINTER = 8;
    /** A link is a pointer to the node, and one to what counts the references to it. */
    private static final int LINK = 2 * POINTER;
    /** A growing array is a pointer to its elements, one behind them, and one behind their room. */
    private static final int ARRAY_END = POINTER;

    private static final int MAP_HEAD = 56;
    private static final int MAP_TAIL = 72;
    private static final int MAP_TOP_LEVEL = 664;
    private static final int MAP_BOUNDS = 736;
    private static final int MAP_CHUNKS = 760;

    private static final int CHUNK_COUNT = 0;
    private static final int CHUNK_STARTS = 8;
    private static final int CHUNK_NODES = 1032;
    /** The places of a chunk. Where there is no node, the start is the last position of all. */
    static final int CHUNK_PLACES = 128;

    private static final int NODE_TYPE = 56;
    private static final int NODE_FILE_NUMBER = 57;
    private static final int NODE_FILE_OFFSET = 60;
    private static final int NODE_MAJOR_VER = 64;
    private static final int NODE_MINOR_VER = 68;
    private static final int NODE_START = 80;
    private static final int NODE_LEN = 88;
    private static final int NODE_LINKS = 96;

    static {
        IS_TRUSTED = !"false".equalsIgnoreCase(System.getProperty(PROPERTY))
                && MemoryReader.isAvailable() && LayoutCheck.succeeds();
    }

    private NativeLayout() {
    }

    /** Has {@link #IS_TRUSTED} decided by now. The library is loaded: that may be what allows it. */
    static void decide() {
        // Done before anybody can call.
    }

    // --- Maps ------------------------------------------------------------------------------------

    /** Gives the node before the first range. */
    static long head(long map) {
        return MemoryReader.readLong(map + MAP_HEAD);
    }

    /** Gives the end mark. */
    static long tail(long map) {
        return MemoryReader.readLong(map + MAP_TAIL);
    }

    /** Gives a level above which nothing is linked. */
    static int topLevel(long map) {
        return MemoryReader.readInt(map + MAP_TOP_LEVEL);
    }

    // --- Signposts -------------------------------------------------------------------------------

    /** Gives the number of chunks; 0 where the map has no signposts. */
    static int chunkCount(long map) {
        long array = map + MAP_CHUNKS;
        return (int) (MemoryReader.readLong(array + ARRAY_END) - MemoryReader.readLong(array))
                / POINTER;
    }

    static long chunk(long map, int index) {
        return MemoryReader.readLong(
                MemoryReader.readLong(map + MAP_CHUNKS) + (long) index * POINTER);
    }

    /** Gives where the first starts of chunks begin, that of the first chunk left out. */
    static long bounds(long map) {
        return MemoryReader.readLong(map + MAP_BOUNDS);
    }

    /** Gives where the starts of a chunk begin. */
    static long starts(long chunk) {
        return chunk + CHUNK_STARTS;
    }

    /** Gives one of ascending starts. */
    static long start(long starts, int index) {
        return MemoryReader.readLong(starts + (long) index * Long.BYTES);
    }

    static int nodeCount(long chunk) {
        return (int) MemoryReader.readLong(chunk + CHUNK_COUNT);
    }

    static long node(long chunk, int index) {
        return MemoryReader.readLong(chunk + CHUNK_NODES + (long) index * POINTER);
    }

    // --- Nodes -----------------------------------------------------------------------------------

    static long offset(long node) {
        return MemoryReader.readLong(node + NODE_START);
    }

    static int len(long node) {
        return MemoryReader.readInt(node + NODE_LEN);
    }

    /** Gives the next node of those that are linked at a level. */
    static long next(long node, int level) {
        return MemoryReader.readLong(node + NODE_LINKS + (long) level * LINK);
    }

    static boolean isMemoryType(long node) {
        return MemoryReader.readByte(node + NODE_TYPE) != 0;
    }

    static byte fileNumber(long node) {
        return MemoryReader.readByte(node + NODE_FILE_NUMBER);
    }

    static int fileOffset(long node) {
        return MemoryReader.readInt(node + NODE_FILE_OFFSET);
    }

    static int majorVer(long node) {
        return MemoryReader.readInt(node + NODE_MAJOR_VER);
    }

    static int minorVer(long node) {
        return MemoryReader.readInt(node + NODE_MINOR_VER);
    }
}
