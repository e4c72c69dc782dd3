package stor.device.replay;

/**
 * A place in a file.
 *
 * @param memory whether the place is of memory type, as {@code insertWithBuff} stores it
 * @param number the file number
 * @param offset the offset in the file in bytes
 * @param major the major version
 * @param minor the minor version
 */
public record Location(boolean memory, byte number, int offset, int major, int minor) {
    /** Stands for bytes that are stored nowhere. */
    public static final Location EMPTY = new Location(false, (byte) 0, -1, -1, -1);

    private static final int EXTRA_BYTES_PER_SECTOR = 8;

    /**
     * Tells how far apart two bytes of one continuous stretch lie in the file.
     *
     * @param distance their logical distance in bytes, which may be negative
     * @param sectorSize the logical bytes of a sector
     * @return their distance in the file in bytes
     */
    public static long fileDistance(long distance, int sectorSize) {
        return distance + distance / sectorSize * EXTRA_BYTES_PER_SECTOR;
    }

    /**
     * Tells whether bytes with this location are stored nowhere.
     *
     * @return whether the offset and both versions are -1; type and number do not matter
     */
    public boolean isEmpty() {
        return offset == -1 && major == -1 && minor == -1;
    }

    /**
     * Moves along the file. The offset wraps as 32-bit arithmetic does.
     *
     * @param distance how far, in logical bytes
     * @param sectorSize the logical bytes of a sector
     * @return the place that far from here
     */
    public Location plus(long distance, int sectorSize) {
        int moved = (int) (offset + fileDistance(distance, sectorSize));
        return new Location(memory, number, moved, major, minor);
    }

    /**
     * Changes the type.
     *
     * @param memoryType whether the result is of memory type
     * @return the same place with that type
     */
    public Location withType(boolean memoryType) {
        return new Location(memoryType, number, offset, major, minor);
    }

    /**
     * Compares file and versions.
     *
     * @param other another place
     * @return whether number and versions are equal
     */
    public boolean sameFile(Location other) {
        return number == other.number && major == other.major && minor == other.minor;
    }
}
