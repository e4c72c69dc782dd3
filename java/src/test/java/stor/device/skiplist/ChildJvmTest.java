package stor.device.skiplist;

import static java.nio.file.StandardOpenOption.READ;
import static java.nio.file.StandardOpenOption.WRITE;
import static org.junit.jupiter.api.Assertions.assertAll;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.PooledByteBufAllocator;
import io.netty.buffer.Unpooled;
import java.io.File;
import java.io.IOException;
import java.net.MalformedURLException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.MappedByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Queue;
import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.jar.Attributes;
import java.util.jar.JarFile;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.MethodSource;

/** What only the output and the end of a whole JVM can show: loading, losing, exiting. */
class ChildJvmTest {
    private static final String PROPERTY = "skiplist.native.library";
    private static final String VERSION = System.getProperty("skiplist.test.version");
    private static final Path LIBRARY = Path.of(System.getProperty("skiplist.test.library"));
    private static final Path PROJECT = Path.of(System.getProperty("skiplist.test.project"));
    private static final Path EXAMPLES = PROJECT.resolve("java/examples");
    private static final String CLASS_PATH = System.getProperty("java.class.path");
    private static final String USER_PATH = System.getProperty("skiplist.test.user.path");
    private static final int EXITS = Integer.getInteger("skiplist.test.exits", 15);

    @TempDir
    private static Path folder;
    @TempDir
    private static Path otherFolder;

    /** A JVM in an empty folder, how it ends, and what it says; a text after "not " is not said. */
    record Child(int status, List<String> args, List<String> texts) {
        @Override
        public String toString() {
            return texts.toString();
        }
    }

    static Stream<Child> children() throws IOException {
        String platform = Platform.current().name();
        String tmpdir = "-Dskiplist.native.tmpdir=" + folder;
        String missing = "-Dskiplist.native.tmpdir=" + folder.resolve("missing");
        String leaks = "-Dskiplist.leakDetection=";
        String lost = "OffHeapRangeMap#1 was never closed";
        return Stream.of(
                loading(0, List.of(tmpdir), "loaded: 0\n"),
                loading(0, List.of(missing, "-Djava.library.path=" + LIBRARY.getParent()),
                        "loaded: 0\n"),
                loading(1, List.of(missing, "-Djava.library.path=/"),
                        "load native library: native/" + platform + "/libskiplistjni.so of the "
                                + "jar, copied to " + folder.resolve("missing") + " (property "
                                + "skiplist.native.tmpdir): cannot create a file there: "
                                + "java.nio.file.NoSuchFileException",
                        "\n  libskiplistjni.so on java.library.path=/: no such file\n  found: "
                                + platform + " with glibc 2.",
                        "; the jar of version " + VERSION + " holds libraries for linux-",
                        ", with glibc 2.", " or later\n  set the property " + PROPERTY
                                + " to the absolute path of libskiplistjni.so, of version "
                                + VERSION + "\n", "Suppressed: java.io.IOException"),
                loading(1, List.of("-D" + PROPERTY + "=/missing.so",
                        "-Djava.library.path=" + LIBRARY.getParent()), "load native library: "
                                + "/missing.so (property " + PROPERTY + "): no such file"),
                loading(1, List.of("-D" + PROPERTY + "=" + anotherLibrary()), "load native library: "
                        + anotherLibrary(), "this file is no skiplist-native library"),
                loading(1, List.of("-D" + PROPERTY + "=" + libraryOfVersion("9.8.7")),
                        "the library is of version 9.8.7, the jar of version " + VERSION),
                loading(1, List.of("-D" + PROPERTY + "=" + cutLibrary()),
                        "the file is damaged: it has "),
                loading(1, List.of("-D" + PROPERTY + "=lib.so"), "lib.so (property " + PROPERTY
                        + "): not an absolute path"),
                loading(1, List.of("-D" + PROPERTY + "=/"), "/ (property " + PROPERTY
                        + "): not a regular file"),
                new Child(1, List.of("-cp", damagedJar() + File.pathSeparator + CLASS_PATH,
                        Loader.class.getName()),
                        List.of("the jar is damaged: this file's checksum is ")),
                loading(1, List.of("-Dmapped=true", "-D" + PROPERTY + "=/missing.so"),
                        " with glibc 2."),
                loading(0, List.of("-Dagain=200", tmpdir), "loaded: 0\nagain: 200, left: 1\n"),
                loading(1, List.of("-Dagain=1", "-D" + PROPERTY + "=" + LIBRARY),
                        "already loaded in another classloader; leave " + PROPERTY
                                + " unset, so that each class loader loads a copy of its own"),
                child(0, Loser.class, List.of(leaks + "always"), "given back", lost, "loseAMap"),
                child(0, Loser.class, List.of(leaks + "sampled"), "given back", lost, "loseAMap"),
                child(0, Loser.class, List.of(leaks + "off"), "given back", "not " + lost),
                child(0, Loser.class, List.of(leaks + "frequently"), "given back", lost,
                        "skiplist.leakDetection: frequently (expected: off, sampled or always)"),
                child(0, BufferLoser.class, List.of("-Dio.netty.leakDetection.level=paranoid"),
                        "LEAK: ByteBuf.release() was not called", "Hint: OffHeapRangeMap#1"),
                example("Tutorial", "0: 4096 bytes in file 3 at 0\n"
                        + "4096: 512 bytes in file 4 at 0, and in memory\n"),
                example("CacheIndex", "miss\nmemory: 1\nfile at 9360\n4096 bytes of garbage, "
                        + "MapStatistics[ranges=2, holes=1, coveredBytes=8192, buffers=0, "),
                example("SnapshotWhileWriting", "10000 ranges of version 1 of 10000\n"),
                new Child(0, List.of("-cp", USER_PATH, Verifier.class.getName(), "0", "42"),
                        List.of("PASS: 1000 operations, seeds 42 to 42, Java ", "not WARNING")),
                new Child(0, List.of("-p", USER_PATH, "--add-modules", "jdk.unsupported",
                        "--enable-native-access=stor.device.skiplist",
                        "-m", "stor.device.skiplist/" + Verifier.class.getName(), "0", "42"),
                        List.of("PASS: 1000 operations", "not WARNING", "not INFO")),
                new Child(2, List.of("-cp", USER_PATH, Verifier.class.getName(), "soon"),
                        List.of("usage: Verifier", "'soon' (expected: a number from 0 to ")));
    }

    private static Child child(
            int status, Class<?> main, List<String> properties, String... texts) {
        List<String> args = new ArrayList<>(properties);
        args.addAll(List.of("-cp", CLASS_PATH, main.getName()));
        return new Child(status, args, List.of(texts));
    }

    private static Child loading(int status, List<String> properties, String... texts) {
        return child(status, Loader.class, properties, texts);
    }

    private static Path anotherLibrary() {
        return Path.of(System.getProperty("java.home"), "lib", "libzip.so");
    }

    private static Path cutLibrary() throws IOException {
        byte[] library = Files.readAllBytes(LIBRARY);
        return Files.write(otherFolder.resolve("cut.so"),
                Arrays.copyOf(library, library.length - 1));
    }

    /** A jar whose library is not what its checksum says. */
    private static Path damagedJar() throws IOException {
        StringBuilder jar = new StringBuilder(
                Files.readString(Path.of(Loader.jar()), StandardCharsets.ISO_8859_1));
        // In the directory at the end, some bytes before the name.
        int sum = jar.lastIndexOf("stor/device/skiplist/native/" + Platform.current().name()) - 30;
        jar.setCharAt(sum, (char) (jar.charAt(sum) ^ 1));
        return Files.writeString(otherFolder.resolve("damaged.jar"), jar,
                StandardCharsets.ISO_8859_1);
    }

    private static Path libraryOfVersion(String version) throws IOException {
        String library = Files.readString(LIBRARY, StandardCharsets.ISO_8859_1);
        return Files.writeString(otherFolder.resolve("other.so"),
                library.replace("version " + VERSION, "version " + version),
                StandardCharsets.ISO_8859_1);
    }

    @ParameterizedTest(name = "{index}")
    @MethodSource("children")
    void aJvmEndsAndSaysWhatItShould(Child child) throws Exception {
        StrictJvm.Ended ended = StrictJvm.run(folder, child.args());
        assertAll(child.toString(), Stream.concat(
                Stream.of(() -> assertEquals(child.status(), ended.status(), ended.output())),
                child.texts().stream().map(text -> () -> assertTrue(text.startsWith("not ")
                        ? !ended.output().contains(text.substring(4))
                        : ended.output().contains(text), text + " in: " + ended.output()))));
        assertNothingLeft();
    }

    private static void assertNothingLeft() throws Exception {
        try (Stream<Path> left = Files.list(folder)) {
            assertEquals(List.of(), left.toList());
        }
    }

    /** Ends JVMs while daemon threads are inside the library, at a different moment each. */
    @Test
    void aProcessEndsAsAskedWhileDaemonThreadsAreInsideTheLibrary() throws Exception {
        for (int i = 0; i < EXITS; i++) {
            int status = 10 + i % 100;
            StrictJvm.Ended ended = StrictJvm.run(folder, List.of(
                    "-XX:ErrorFile=" + folder.resolve("hs_err.log"),
                    "-XX:-CreateCoredumpOnCrash", "-cp", CLASS_PATH, Busy.class.getName(),
                    Integer.toString(status)));
            assertEquals(new StrictJvm.Ended(status, ""), ended, "exit " + i);
            assertNothingLeft();
        }
    }

    @Test
    void theJarTellsItsVersionAndItsModule() throws Exception {
        try (JarFile file = new JarFile(Loader.jar())) {
            Attributes manifest = file.getManifest().getMainAttributes();
            assertEquals(System.getProperty("skiplist.test.version"),
                    manifest.getValue(Attributes.Name.IMPLEMENTATION_VERSION));
            assertEquals("stor.device.skiplist", manifest.getValue("Automatic-Module-Name"));
        }
    }

    private static Child example(String name, String output) {
        return new Child(0, List.of("-cp", USER_PATH, EXAMPLES.resolve(name + ".java").toString()),
                List.of(output));
    }

    @Test
    void theFirstExampleOfTheReadmeIsTheTutorial() throws Exception {
        String[] readme = Files.readString(PROJECT.resolve("README.md")).split("```java\n|```");
        String[] tutorial =
                Files.readString(EXAMPLES.resolve("Tutorial.java")).split("// README: [a-z]+\n");
        // The last mark is indented, too.
        assertEquals(tutorial[1] + "\n" + tutorial[3].stripIndent().stripTrailing(),
                readme[1].stripTrailing());
    }

    @ParameterizedTest
    @CsvSource({
        "Linux, amd64, '', linux-x86_64",
        "Linux, x86_64, -musl, linux-x86_64-musl",
        "Linux, arm64, '', linux-aarch64",
        "Odd/../OS, ../x, '', oddos-x"})
    void aPlatformIsNamedInLettersThatAFolderMayHave(
            String system, String processor, String variant, String expected) {
        assertEquals(expected, Platform.name(system, processor, variant));
    }

    @ParameterizedTest
    @CsvSource({
        "'', an unknown C library",
        "/lib/ld-musl-x86_64.so.1, musl",
        "/missing/libc.so.6, glibc of unknown version"})
    void aCLibraryIsNamedByItsFile(String file, String expected) {
        assertEquals(expected, new Platform("linux-x86_64", file).libc());
    }

    @ParameterizedTest
    @CsvSource({
        "failed to map segment from shared object, linux-x86_64, noexec",
        "version `GLIBC_2.36' not found, linux-x86_64, older",
        "Error relocating, linux-x86_64-musl, musl"})
    void aReasonIsExplained(String reason, String platform, String explanation) {
        assertTrue(NativeLoader.advice(new UnsatisfiedLinkError(reason), new Platform(platform, ""))
                .contains(explanation));
        assertFalse(NativeLoader.advice(new UnsatisfiedLinkError("other"),
                new Platform("linux-x86_64", "")).contains(explanation));
    }

    @Test
    void theOptionThatAllowsNativeCodeNamesTheModule() {
        assertEquals("--enable-native-access=ALL-UNNAMED",
                NativeLoader.accessFlag(NativeLoader.class.getModule()));
        assertEquals("--enable-native-access=java.base",
                NativeLoader.accessFlag(Object.class.getModule()));
    }

    /**
     * Loads the library, as properties say: beside a mapped file whose name is a byte that stands for
     * no character, and once more in each of so many class loaders, in several threads at a time; 50
     * class loaders are alive at once, and the others closed.
     */
    static final class Loader {
        private static final int ALIVE = 50;
        private static MappedByteBuffer mapped;

        public static void main(String[] args) throws Exception {
            if (Boolean.getBoolean("mapped")) {
                mapped = mapOddFile();
            }
            System.out.println("loaded: " + JniSkipListNative.tryTest());
            int again = Integer.getInteger("again", 0);
            if (again > 0) {
                Queue<URLClassLoader> alive = new ConcurrentLinkedQueue<>();
                ExecutorService threads = Executors.newFixedThreadPool(8);
                Callable<Void> load = () -> {
                    alive.add(loadAgain());
                    if (alive.size() > ALIVE) {
                        alive.remove().close();
                    }
                    return null;
                };
                List<Future<Void>> ends =
                        threads.invokeAll(Collections.nCopies(again, load));
                threads.shutdown();
                for (Future<Void> end : ends) {
                    end.get();
                }
                alive.clear();
                System.out.println("again: " + again + ", left: " + copiesLeft());
            }
        }

        /** A name that is no character in UTF-8, and that Java itself cannot give in every locale. */
        private static MappedByteBuffer mapOddFile() throws Exception {
            shell("ln -s \"$(printf '\\377')\" odd; : >odd");
            try (FileChannel file = FileChannel.open(Path.of("odd"), READ, WRITE)) {
                return file.map(FileChannel.MapMode.READ_WRITE, 0, 1);
            } finally {
                shell("rm odd \"$(printf '\\377')\"");
            }
        }

        private static void shell(String script) throws Exception {
            assertEquals(0, new ProcessBuilder("sh", "-c", script).inheritIO().start().waitFor());
        }

        private static URLClassLoader loadAgain() throws Exception {
            // A manifest names the jar, but not to other loaders.
            URL[] urls = Stream.concat(Stream.of(jar()), Arrays.stream(
                    System.getProperty("java.class.path").split(File.pathSeparator)))
                    .map(Loader::url).toArray(URL[]::new);
            URLClassLoader loader = new URLClassLoader(urls, ClassLoader.getPlatformClassLoader());
            Class<?> other = loader.loadClass(JniSkipListNative.class.getName());
            assertNotSame(JniSkipListNative.class, other);
            // A map charges memory, which leaves something with the thread.
            Object map = other.getMethod("createSkipList", int.class, int.class)
                    .invoke(null, 12, 512);
            other.getMethod("destorySkipList", long.class).invoke(null, map);
            return loader;
        }

        /** Counts the mapped copies of the library when the collector has had its time. */
        private static long copiesLeft() throws Exception {
            long copies = Long.MAX_VALUE;
            for (int i = 0; copies > 1 && i < 100; i++) {
                System.gc();
                Thread.sleep(50);
                try (Stream<String> mapped = Files.lines(Path.of("/proc/self/maps"))) {
                    copies = mapped.filter(line -> line.contains(" r-xp ")
                            && line.contains("libskiplistjni-")).count();
                }
            }
            return copies;
        }

        private static String jar() {
            return JniSkipListNative.class.getProtectionDomain().getCodeSource().getLocation()
                    .getPath();
        }

        private static URL url(String path) {
            try {
                return new File(path).toURI().toURL();
            } catch (MalformedURLException e) {
                throw new IllegalArgumentException(path, e);
            }
        }
    }

    /** Loses two maps: the thread that frees the second has reported the first. */
    static final class Loser {
        public static void main(String[] args) throws InterruptedException {
            ByteBuf buffer = Unpooled.wrappedBuffer(new byte[512]);
            for (int lost = 1; lost <= 2; lost++) {
                loseAMap(buffer);
                while (NativeMemory.lostMaps() < lost) {
                    System.gc();
                    Thread.sleep(1);
                }
            }
            assertEquals(1, buffer.refCnt());
            System.out.println("given back");
        }

        private static void loseAMap(ByteBuf buffer) {
            OffHeapRangeMap.create(4, 512).insert(0, 512, new FileLocation(3, 0, 1, 0), buffer);
        }
    }

    /** Loses a buffer that a map once took, until Netty reports it. */
    static final class BufferLoser {
        public static void main(String[] args) throws InterruptedException {
            storeABuffer();
            // Netty keeps a slice for reuse, and with it the buffer that it was cut from.
            storeABuffer().release();
            LeakHunt.hunt();
        }

        private static ByteBuf storeABuffer() {
            ByteBuf buffer = PooledByteBufAllocator.DEFAULT.buffer().writeZero(512);
            try (OffHeapRangeMap map = OffHeapRangeMap.create(4, 512)) {
                map.insert(0, 512, new FileLocation(3, 0, 1, 0), buffer);
            }
            return buffer;
        }
    }

    /** Uses the library from daemon threads, and ends with a status when all of them work. */
    static final class Busy {
        private static final int THREADS = 5;
        private static final int LATEST_MILLIS = 100;
        private static final int MANY = 20_000;

        public static void main(String[] args) throws InterruptedException {
            int status = Integer.parseInt(args[0]);
            Random random = new Random(status);
            CountDownLatch busy = new CountDownLatch(THREADS);
            long large = largeMap();
            // What the first buffer takes would outlast the process.
            useBuffers(0);
            forever(busy, () -> useBuffers(1));
            forever(busy, () -> useBuffers(2));
            forever(busy, () -> copy(large));
            forever(busy, () -> {
                JniSkipListNative.getStats();
                JniSkipListNative.init(Long.MAX_VALUE - random.nextInt(2));
            });
            forever(busy, () -> {
                try {
                    daemon(() -> useBuffers(3)).join();
                } catch (InterruptedException e) {
                    throw new IllegalStateException(e);
                }
            });
            busy.await();
            Thread.sleep(random.nextInt(LATEST_MILLIS));
            System.exit(status);
        }

        private static void forever(CountDownLatch begun, Runnable work) {
            daemon(() -> {
                begun.countDown();
                while (true) {
                    work.run();
                }
            });
        }

        private static Thread daemon(Runnable work) {
            Thread thread = new Thread(work);
            thread.setDaemon(true);
            thread.start();
            return thread;
        }

        /** Makes, cuts, copies and drops buffered ranges, which calls Java again and again. */
        private static void useBuffers(long seed) {
            Random random = new Random(seed);
            ByteBuf buffer = Unpooled.directBuffer().writeZero(512);
            try (OffHeapRangeMap map = OffHeapRangeMap.createUnaligned(6, 512);
                    OffHeapRangeMap copy = OffHeapRangeMap.createUnaligned(6, 512)) {
                for (int i = 0; i < 500; i++) {
                    map.insert(random.nextInt(1 << 16), 512, new FileLocation(1, 0, 1, i), buffer);
                }
                map.copyTo(copy);
                map.release();
            }
            buffer.release();
        }

        private static long largeMap() {
            long map = JniSkipListNative.createSkipList(12, 512);
            for (int i = 0; i < MANY; i++) {
                JniSkipListNative.insert(map, 16L * i, 8, 0, 1, i, (byte) 1);
            }
            return map;
        }

        /**
         * Spends about a second in a call that does not call Java: a map of one level is searched
         * range by range. While the process ends, the JVM waits 300 milliseconds for such calls
         * and then lets them run on.
         */
        private static void copy(long map) {
            long copy = JniSkipListNative.createSkipList(1, 512);
            JniSkipListNative.copySkipList(map, copy);
            JniSkipListNative.destorySkipList(copy);
        }
    }
}
