// Drawings of the report page. The curves stretch with the page; axis labels are text beside them,
// of the same size on every screen.
#pragma once

#include <string>
#include <vector>

namespace pkgdist::lead_program {

// Every text that comes out of events goes through this: names of files may be anything.
std::string escaped(const std::string& text);

struct Point {
  double seconds = 0, value = 0;
};

// With axes from 0 to the given ends.
class Drawing {
 public:
  Drawing(double x_end, double y_end);

  // `style`: a class of the page's style sheet; `title`: shown under the pointer.
  void curve(const std::vector<Point>& points, const std::string& style, const std::string& title);
  void bar(double from, double to, double value, const std::string& title);
  // A moment, with a number that stands above the drawing.
  void mark(double x, size_t number, const std::string& title);

  // `label`: for those who do not see it.
  std::string html(const std::string& label, const std::string& x_unit,
                   const std::string& y_unit) const;

 private:
  double x(double value) const;
  double y(double value) const;

  double x_end_, y_end_;
  std::string body_;
  std::string marks_;
};

}  // namespace pkgdist::lead_program
