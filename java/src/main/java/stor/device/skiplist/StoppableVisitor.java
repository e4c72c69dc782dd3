package stor.device.skiplist;

/**
 * Takes the ranges of a walk one by one, with no object made for any of them, until it has seen
 * enough.
 *
 * @param <E> a checked exception that it may throw; inferred to be none for one that throws none
 */
@FunctionalInterface
public interface StoppableVisitor<E extends Exception> {
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
     * @return whether to go on
     * @throws E if it cannot go on
     */
    boolean visit(long offset, int len, int fileNumber, int fileOffset, int majorVer, int minorVer,
            Visited range) throws E;
}
