package stor.device.store;

import java.io.EOFException;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.io.UncheckedIOException;
import java.nio.ByteBuffer;
import java.nio.channels.ClosedByInterruptException;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.stream.Stream;

/**
 * A folder of a real file system, locked against other stores until it is closed.
 *
 * <p>Files are not {@link FileChannel}s, which an interrupt of any thread that uses one closes for
 * all others. A {@link RandomAccessFile} knows no interrupts; its one position makes each access two
 * calls, under the lock of the file.
 */
final class FolderDisk implements Disk {
    private final Path folder;
    private final FolderLock lock;

    /** Makes the folder if it is not there. */
    FolderDisk(Path folder) throws IOException {
        this.folder = folder.toAbsolutePath();
        createFolder(this.folder);
        lock = FolderLock.take(folder);
    }

    /** Makes a folder and those that it is to be in, whose names last when this returns. */
    private static void createFolder(Path folder) throws IOException {
        if (!Files.isDirectory(folder)) {
            createFolder(folder.getParent());
            Files.createDirectories(folder);
            forceNames(folder.getParent());
        }
    }

    @Override
    public List<String> names() throws IOException {
        try (Stream<Path> files = Files.list(folder)) {
            return files.map(file -> file.getFileName().toString()).toList();
        } catch (UncheckedIOException e) {
            throw e.getCause();
        }
    }

    @Override
    public long size(String name) throws IOException {
        return Files.size(folder.resolve(name));
    }

    @Override
    public DiskFile create(String name) throws IOException {
        OpenFile file = openOrCreate(name);
        try {
            file.truncate(0);
            return file;
        } catch (IOException failure) {
            try (file) {
                throw failure;
            }
        }
    }

    @Override
    public DiskFile open(String name) throws IOException {
        if (!Files.exists(folder.resolve(name))) {
            throw new IOException(folder.resolve(name) + ": missing");
        }
        return openOrCreate(name);
    }

    private OpenFile openOrCreate(String name) throws IOException {
        return new OpenFile(name, new RandomAccessFile(folder.resolve(name).toFile(), "rw"));
    }

    @Override
    public void rename(String from, String to) throws IOException {
        Files.move(folder.resolve(from), folder.resolve(to), StandardCopyOption.ATOMIC_MOVE);
    }

    @Override
    public void delete(String name) throws IOException {
        Files.deleteIfExists(folder.resolve(name));
    }

    @Override
    public void forceNames() throws IOException {
        forceNames(folder);
    }

    /** A folder can be forced through a channel only. This one is nobody else's: it is tried again. */
    private static void forceNames(Path folder) throws IOException {
        boolean interrupted = Thread.interrupted();
        while (true) {
            try (FileChannel channel = FileChannel.open(folder, StandardOpenOption.READ)) {
                channel.force(true);
                break;
            } catch (ClosedByInterruptException e) {
                interrupted = Thread.interrupted();
            }
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    @Override
    public void close() throws IOException {
        lock.close();
    }

    private static final class OpenFile implements DiskFile {
        private final String name;
        private final RandomAccessFile file;

        OpenFile(String name, RandomAccessFile file) {
            this.name = name;
            this.file = file;
        }

        @Override
        public synchronized void write(ByteBuffer bytes, long position) throws IOException {
            file.seek(position);
            file.write(bytes.array(), bytes.position(), bytes.remaining());
            bytes.position(bytes.limit());
        }

        @Override
        public synchronized void read(ByteBuffer bytes, long position) throws IOException {
            file.seek(position);
            while (bytes.hasRemaining()) {
                int count = file.read(bytes.array(), bytes.position(), bytes.remaining());
                if (count < 0) {
                    throw new EOFException(name + ": " + file.length() + " bytes (expected: "
                            + (position + bytes.limit()) + " or more)");
                }
                bytes.position(bytes.position() + count);
            }
        }

        @Override
        public long size() throws IOException {
            return file.length();
        }

        @Override
        public synchronized void truncate(long size) throws IOException {
            file.setLength(size);
        }

        @Override
        public void force() throws IOException {
            file.getFD().sync();
        }

        @Override
        public synchronized void close() throws IOException {
            file.close();
        }
    }
}
