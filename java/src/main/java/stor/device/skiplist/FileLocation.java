package stor.device.skiplist;

/**
 * A place in a file: where the first byte of a range lies.
 *
 * <p>A file keeps 8 bytes of its own after every whole sector, so the byte {@code skip} bytes
 * further along lies {@code skip + skip / sectorSize * 8} bytes further along in the file.
 *
 * @param number the file number, 0 to 255
 * @param offset the offset in the file in bytes
 * @param majorVer the major version
 * @param minorVer the minor version
 */
public record FileLocation(int number, int offset, int majorVer, int minorVer) {
    /**
     * Stands for bytes that are stored nowhere. Ranges there are joined where they meet. When one
     * is cut, the piece that does not start where the range did is not empty any more: like any
     * other it moves along the file, but it {@linkplain #isUnversioned keeps the versions -1}.
     */
    public static final FileLocation EMPTY = new FileLocation(0, -1, -1, -1);

    private static final int MAX_NUMBER = 255;
    static final int NO_VERSION = -1;
    private static final int EXTRA_BYTES_PER_SECTOR = 8;

    /**
     * Makes a location.
     *
     * @param number the file number, 0 to 255
     * @param offset the offset in the file in bytes
     * @param majorVer the major version
     * @param minorVer the minor version
     * @throws IllegalArgumentException if {@code number} is not within 0 to 255
     */
    public FileLocation {
        if (number < 0 || number > MAX_NUMBER) {
            throw new IllegalArgumentException(
                    "FileLocation: number: " + number + " (expected: 0 to " + MAX_NUMBER + ")");
        }
    }

    /**
     * Tells whether bytes with this location are stored nowhere.
     *
     * @return whether the offset and both versions are -1; the number does not matter
     */
    public boolean isEmpty() {
        return offset == -1 && isUnversioned();
    }

    /**
     * Tells whether this is {@link #EMPTY} or a place in a range that was once inserted there,
     * provided that no other range was inserted with both versions -1.
     *
     * @return whether both versions are -1
     */
    public boolean isUnversioned() {
        return majorVer == NO_VERSION && minorVer == NO_VERSION;
    }

    /**
     * Moves along the file. The offset wraps as 32-bit arithmetic does.
     *
     * @param skip how far, in logical bytes; may be negative
     * @param sectorSize the logical bytes of a sector, as given to {@link OffHeapRangeMap#create}
     * @return the place that far from here
     * @throws IllegalArgumentException if {@code sectorSize} is not within 1 to 2^30
     */
    public FileLocation plus(long skip, int sectorSize) {
        Arguments.within("plus", "sectorSize", sectorSize, 1, OffHeapRangeMap.MAX_SECTOR_SIZE);
        int moved = (int) (offset + fileDistance(skip, sectorSize));
        return new FileLocation(number, moved, majorVer, minorVer);
    }

    /** Tells how far apart in the file two bytes lie that are {@code skip} bytes apart. */
    static long fileDistance(long skip, int sectorSize) {
        return skip + skip / sectorSize * EXTRA_BYTES_PER_SECTOR;
    }
}
