package stor.device.replay;

import java.io.BufferedInputStream;
import java.io.EOFException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.util.zip.GZIPInputStream;
import java.util.zip.ZipException;

/**
 * Reads text line by line in one pass, plain or compressed with gzip, which is told by its magic
 * number. Takes the same memory whatever the text: a longer line than {@link #MAX_LINE} is refused.
 */
final class LineReader implements AutoCloseable {
    static final int MAX_LINE = 4096;
    private static final int BUFFER_BYTES = 1 << 16;
    private static final int GZIP_MAGIC = 0x1f8b;

    private final CountedInput file;
    private final InputStream text;
    private final byte[] buffer = new byte[BUFFER_BYTES];
    private final byte[] line = new byte[MAX_LINE];
    private int position;
    private int limit;
    private long lineNumber;

    LineReader(InputStream source) throws IOException {
        file = new CountedInput(source);
        text = unpack(file);
    }

    /** Reads a line without its end, be it LF or CRLF; null at the end of the text. */
    String next() throws IOException {
        lineNumber++;
        int length = 0;
        boolean tooLong = false;
        int next = read();
        if (next < 0) {
            return null;
        }
        for (; next >= 0 && next != '\n'; next = read()) {
            if (length < MAX_LINE) {
                line[length] = (byte) next;
                length++;
            } else {
                tooLong = true;
            }
        }
        if (tooLong) {
            throw new IllegalArgumentException(
                    "a line of more than " + MAX_LINE + " bytes (expected: a trace)");
        }
        if (length > 0 && line[length - 1] == '\r') {
            length--;
        }
        return new String(line, 0, length, StandardCharsets.ISO_8859_1);
    }

    /** Gives the number of the line that was read last, or tried. */
    long lineNumber() {
        return lineNumber;
    }

    /** Gives the bytes taken from the file so far, compressed if it is. Any thread may ask. */
    long bytesTaken() {
        return file.taken;
    }

    @Override
    public void close() throws IOException {
        file.close();
    }

    private int read() throws IOException {
        if (position == limit) {
            limit = fill();
            position = 0;
            if (limit <= 0) {
                limit = 0;
                return -1;
            }
        }
        return buffer[position++] & 0xFF;
    }

    private int fill() throws IOException {
        try {
            return text.read(buffer);
        } catch (EOFException e) {
            throw new IOException("the compressed data end too early: the file was cut", e);
        } catch (ZipException e) {
            throw new IOException("damaged gzip data: " + e.getMessage(), e);
        }
    }

    private static InputStream unpack(CountedInput file) throws IOException {
        file.mark(3);
        int magic = (file.read() & 0xFF) << 16 | (file.read() & 0xFF) << 8 | file.read() & 0xFF;
        file.reset();
        if (magic >> 8 != GZIP_MAGIC) {
            refuse(magic);
            return file;
        }
        try {
            return new GZIPInputStream(file, BUFFER_BYTES);
        } catch (EOFException e) {
            throw new IOException("the compressed data end too early: the file was cut", e);
        }
    }

    /** Names what else traces are found compressed with. */
    private static void refuse(int magic) throws IOException {
        String program = switch (magic) {
            case 0xFD377A -> "xz";
            case 0x28B52F -> "zstd";
            case 0x425A68 -> "bzip2";
            case 0x04224D -> "lz4";
            default -> null;
        };
        if (program != null) {
            throw new IOException("compressed with " + program + " (expected: plain or gzip; " + program
                    + " -dc FILE | ./run - unpacks it)");
        }
    }

    /** Counts what is read, and knows for sure whether there is more. */
    private static final class CountedInput extends BufferedInputStream {
        private volatile long taken;

        CountedInput(InputStream source) {
            super(source, BUFFER_BYTES);
        }

        @Override
        public synchronized int read(byte[] bytes, int from, int length) throws IOException {
            int count = super.read(bytes, from, length);
            taken += Math.max(0, count);
            return count;
        }

        /** The unpacker asks this to find out whether another part follows; a pipe has to wait. */
        @Override
        public synchronized int available() throws IOException {
            mark(1);
            int next = read();
            reset();
            return next < 0 ? 0 : 1;
        }
    }
}
