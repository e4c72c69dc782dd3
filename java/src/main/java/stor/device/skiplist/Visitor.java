package stor.device.skiplist;

/** Takes the ranges of a walk one by one, with no object made for any of them. */
@FunctionalInterface
public interface Visitor {
    /**
     * Takes a range. What this throws ends the walk and is passed on.
     *
     * @param offset the first byte
     * @param len the length in bytes, at least 1
     * @param fileNumber the file number, 0 to 255
     * @param fileOffset the offset of the range's first byte in the file, in bytes
     * @param majorVer the major version of the file location
     * @param minorVer the minor version of the file location
     * @param range says more about the range; the same object for all ranges of a walk
     */
    void visit(long offset, int len, int fileNumber, int fileOffset, int majorVer, int minorVer,
            Visited range);
}
