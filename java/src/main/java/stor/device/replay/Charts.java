package stor.device.replay;

import java.awt.BasicStroke;
import java.awt.Color;
import java.awt.Font;
import java.awt.geom.Rectangle2D;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import org.jfree.chart.ChartFactory;
import org.jfree.chart.JFreeChart;
import org.jfree.chart.StandardChartTheme;
import org.jfree.chart.axis.LogAxis;
import org.jfree.chart.axis.NumberAxis;
import org.jfree.chart.axis.NumberTickUnit;
import org.jfree.chart.block.BlockBorder;
import org.jfree.chart.plot.CategoryPlot;
import org.jfree.chart.plot.Plot;
import org.jfree.chart.plot.PlotOrientation;
import org.jfree.chart.plot.XYPlot;
import org.jfree.chart.renderer.LookupPaintScale;
import org.jfree.chart.renderer.category.LineAndShapeRenderer;
import org.jfree.chart.renderer.xy.XYBlockRenderer;
import org.jfree.data.category.CategoryDataset;
import org.jfree.data.xy.DefaultXYZDataset;
import org.jfree.data.xy.XYDataset;
import org.jfree.svg.SVGGraphics2D;
import org.jfree.svg.ViewBox;
import org.jfree.ui.RectangleInsets;

/** Draws the charts of the report, each as an SVG element that can stand in a page with others. */
final class Charts {
    private static final int WIDTH = 560;
    private static final int HEIGHT = 300;
    /** Can be told apart by the colour-blind, too. */
    private static final List<Color> COLOURS = List.of(new Color(0x0072B2), new Color(0xD55E00),
            new Color(0x009E73), new Color(0xCC79A7), new Color(0xE69F00), new Color(0x56B4E9));
    private static final Color GRID = new Color(0xDDDDDD);
    private static final StandardChartTheme THEME = theme();

    private int drawn;

    /** Draws values over time. A value that is to be seen from 0 up. */
    String overTime(String valueAxis, XYDataset values) {
        JFreeChart chart = ChartFactory.createXYLineChart(null, "seconds", valueAxis, values,
                PlotOrientation.VERTICAL, true, false, false);
        THEME.apply(chart);
        XYPlot plot = chart.getXYPlot();
        plot.setRangeGridlinePaint(GRID);
        plot.setDomainGridlinesVisible(false);
        plot.getDomainAxis().setLowerMargin(0);
        plot.getDomainAxis().setUpperMargin(0);
        NumberAxis axis = (NumberAxis) plot.getRangeAxis();
        axis.setAutoRangeIncludesZero(true);
        axis.setNumberFormatOverride(Numbers.shortFormat());
        for (int i = 0; i < values.getSeriesCount(); i++) {
            plot.getRenderer().setSeriesPaint(i, COLOURS.get(i));
            plot.getRenderer().setSeriesStroke(i, new BasicStroke(1.5f));
        }
        return draw(chart, plot, WIDTH, HEIGHT, false);
    }

    /** Draws values of very different sizes by category. */
    String byCategory(String categoryAxis, String valueAxis, CategoryDataset values) {
        JFreeChart chart = ChartFactory.createLineChart(null, categoryAxis, valueAxis, values,
                PlotOrientation.VERTICAL, true, false, false);
        THEME.apply(chart);
        CategoryPlot plot = chart.getCategoryPlot();
        LogAxis axis = new LogAxis(valueAxis);
        axis.setBase(10);
        axis.setTickUnit(new NumberTickUnit(1));
        axis.setMinorTickMarksVisible(false);
        axis.setNumberFormatOverride(Numbers.shortFormat());
        axis.setLabelFont(plot.getRangeAxis().getLabelFont());
        axis.setTickLabelFont(plot.getRangeAxis().getTickLabelFont());
        plot.setRangeAxis(axis);
        plot.setRangeGridlinePaint(GRID);
        LineAndShapeRenderer renderer = (LineAndShapeRenderer) plot.getRenderer();
        renderer.setBaseShapesVisible(true);
        for (int i = 0; i < values.getRowCount(); i++) {
            renderer.setSeriesPaint(i, COLOURS.get(i));
            renderer.setSeriesStroke(i, new BasicStroke(1.5f));
        }
        return draw(chart, plot, WIDTH, HEIGHT, false);
    }

    /** Draws cells, row by row, in the colours that their numbers stand for. */
    String cells(int[] cells, int columns, Map<Integer, Color> colours) {
        int rows = (cells.length + columns - 1) / columns;
        double[][] xyz = new double[3][cells.length];
        for (int i = 0; i < cells.length; i++) {
            xyz[0][i] = i % columns;
            xyz[1][i] = i / columns;
            xyz[2][i] = cells[i];
        }
        DefaultXYZDataset dataset = new DefaultXYZDataset();
        dataset.addSeries("cells", xyz);
        XYBlockRenderer renderer = new XYBlockRenderer();
        LookupPaintScale scale = new LookupPaintScale(-10, 1000, Color.WHITE);
        colours.forEach((number, colour) -> scale.add(number - 0.5, colour));
        renderer.setPaintScale(scale);
        NumberAxis across = axis(columns);
        NumberAxis down = axis(rows);
        down.setInverted(true);
        XYPlot plot = new XYPlot(dataset, across, down, renderer);
        plot.setDomainGridlinesVisible(false);
        plot.setRangeGridlinesVisible(false);
        JFreeChart chart = new JFreeChart(null, JFreeChart.DEFAULT_TITLE_FONT, plot, false);
        THEME.apply(chart);
        return draw(chart, plot, 2 * WIDTH, 10 * rows + 8, true);
    }

    /** Gives the colour of the nth of many things. */
    static Color colour(int n) {
        // Steps of the golden ratio round the circle of hues: neighbours in number differ much.
        float hue = (float) (n * 0.6180339887 % 1);
        return Color.getHSBColor(hue, n % 2 == 0 ? 0.55f : 0.8f, n % 3 == 0 ? 0.9f : 0.75f);
    }

    private static NumberAxis axis(int cells) {
        NumberAxis axis = new NumberAxis();
        axis.setRange(-0.5, Math.max(1, cells) - 0.5);
        axis.setVisible(false);
        return axis;
    }

    private static StandardChartTheme theme() {
        StandardChartTheme theme = new StandardChartTheme("report");
        Font font = new Font(Font.SANS_SERIF, Font.PLAIN, 11);
        theme.setLargeFont(font);
        theme.setRegularFont(font);
        theme.setSmallFont(font);
        theme.setPlotBackgroundPaint(Color.WHITE);
        theme.setShadowVisible(false);
        theme.setAxisOffset(RectangleInsets.ZERO_INSETS);
        return theme;
    }

    private String draw(JFreeChart chart, Plot plot, int width, int height, boolean crisp) {
        chart.setBackgroundPaint(Color.WHITE);
        plot.setOutlineVisible(false);
        if (chart.getLegend() != null) {
            chart.getLegend().setFrame(BlockBorder.NONE);
        }
        SVGGraphics2D svg = new SVGGraphics2D(width, height);
        // Names in one SVG element are seen by all elements of the page.
        drawn++;
        svg.setDefsKeyPrefix(String.format(Locale.ROOT, "chart%d-", drawn));
        if (crisp) {
            svg.setShapeRendering("crispEdges");
        }
        chart.draw(svg, new Rectangle2D.Double(0, 0, width, height));
        return svg.getSVGElement(null, true, new ViewBox(0, 0, width, height), null,
                null);
    }
}
