// Shared ownership: the count is in the object, and the last pointer deletes it.

#include <VelaHost_Utility/RefCount.h>

#include <cstdio>

// RefCount is always a virtual base: an object has one count, whatever it derives from.
class Image : public virtual VelaHost_Utility::RefCount
{
public:
    explicit Image(int width) : m_Width(width) {}
    ~Image() override { std::puts("image gone"); }
    int GetWidth() const { return m_Width; }

private:
    int m_Width;
};

class Photo : public Image
{
public:
    Photo() : Image(640) {}
};

static void Show(const SmartPointer<Image>& image)
{
    std::printf("width %d, held by %d\n", image->GetWidth(), image->GetRefCount());
}

int main()
{
    SmartPointer<Image> image(new Image(320)); // only heap objects
    Show(image);
    {
        const SmartPointer<Image> second = image;
        Show(image);
    }
    Show(image);

    image = SmartPointer<Photo>(new Photo); // lets the first image go
    Show(image);
    std::printf("same object: %s\n", image == image.Get() ? "yes" : "no");
    image = nullptr;
    std::printf("null: %s\n", image ? "no" : "yes");
}

// Output:
//   width 320, held by 1
//   width 320, held by 2
//   width 320, held by 1
//   image gone
//   width 640, held by 1
//   same object: yes
//   image gone
//   null: yes
